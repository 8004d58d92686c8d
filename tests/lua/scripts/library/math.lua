-- math functions and constants.
print(math.max(3, 7, 5), math.min(3, 7, 5))   -- expect: 7	3
print(math.floor(2.7), math.ceil(2.1))        -- expect: 2	3
print(math.sqrt(49), math.sqrt(2) * math.sqrt(2) == 2)  -- expect: 7	false
print(math.clamp(15, 0, 10))                  -- expect: 10
print(math.abs(-3), math.huge > 1e308)        -- expect: 3	true
math.randomseed(42)
local r = math.random(1, 6)
print(r >= 1 and r <= 6)                      -- expect: true
