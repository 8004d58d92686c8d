-- if/elseif/else, while with break, numeric and generic for.
local function classify(n)
  if n < 0 then return 'negative'
  elseif n == 0 then return 'zero'
  else return 'positive' end
end
print(classify(-2), classify(0), classify(9))  -- expect: negative	zero	positive
local total = 0
for i = 1, 10, 3 do total = total + i end
print(total)               -- expect: 22
for x = 1, 0, -0.5 do io.write(x, ';') end print()  -- expect: 1;0.5;0;
local n = 0
while true do
  n = n + 1
  if n >= 5 then break end
end
print(n)                   -- expect: 5
for i, v in ipairs({'a', 'b'}) do print(i, v) end
-- expect: 1	a
-- expect: 2	b
