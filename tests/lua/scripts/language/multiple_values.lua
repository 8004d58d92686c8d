-- Calls expand only in the last position of a list; parentheses keep one value.
local function three() return 1, 2, 3 end
print(three())             -- expect: 1	2	3
print(three(), 'x')        -- expect: 1	x
print((three()))           -- expect: 1
local t = {three(), three()}
print(#t)                  -- expect: 4
local a, b, c, d = three()
print(a, b, c, d)          -- expect: 1	2	3	nil
print(select('#', three())) -- expect: 3
