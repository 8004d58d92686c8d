print('before')  -- expect: before
missing()
-- expect error: call_nil.lua:2: attempt to call a nil value
