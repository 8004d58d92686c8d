local function check(v) if not v then error('check failed') end end
check(true)
print('ok')  -- expect: ok
check(false)
-- expect error: error_value.lua:1: check failed
