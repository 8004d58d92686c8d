-- Array part, hash part, sequence length and key normalisation.
local t = {10, 20, 30, name = 'box'}
print(#t, t.name, t[2])    -- expect: 3	box	20
t[#t + 1] = 40
print(#t)                  -- expect: 4
t[4] = nil
print(#t)                  -- expect: 3
t[2.0] = 'two'
print(t[2])                -- expect: two
local sparse = {}
sparse[3] = 'c'
sparse[1] = 'a'
print(#sparse)             -- expect: 1
sparse[2] = 'b'
print(#sparse)             -- expect: 3
local keys = {}
for k in pairs({x = 1, y = 2, 5, 6}) do keys[#keys + 1] = tostring(k) end
print(table.concat(keys, ' '))  -- expect: 1 2 x y
print({1, 2, {3}}, {k = 'v'})   -- expect: [1, 2, [3]]	{k: v}
