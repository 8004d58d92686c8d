-- table functions.
local t = {5, 3, 9, 1}
table.sort(t)
print(table.concat(t, ','))                -- expect: 1,3,5,9
table.sort(t, function(a, b) return a > b end)
print(table.concat(t, ','))                -- expect: 9,5,3,1
table.insert(t, 2, 7)
print(table.concat(t, ','))                -- expect: 9,7,5,3,1
print(table.remove(t, 1), #t)              -- expect: 9	4
print(table.unpack({1, 2}))                -- expect: 1	2
print(table.keys({b = 1, a = 2, [2] = 3, [1] = 4}))  -- expect: [1, 2, a, b]
local copy = table.clone({1, 2, x = 3})
print(#copy, copy.x)                       -- expect: 2	3
