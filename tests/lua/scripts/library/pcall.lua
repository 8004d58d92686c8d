-- pcall returns the message; error(msg, 0) leaves out the location.
print(pcall(error, 'plain', 0))            -- expect: false	plain
local ok, message = pcall(function() local t = nil; return t.x end)
print(ok, message)                         -- expect: false	pcall.lua:3: attempt to index a nil value
print(pcall(function() return 1, 2 end))   -- expect: true	1	2
print(select('#', pcall(error)))           -- expect: 2
