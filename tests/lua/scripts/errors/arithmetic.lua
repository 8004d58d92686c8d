local x = 'text'
local y = x + 1
-- expect error: arithmetic.lua:2: operator '+' expects numbers
