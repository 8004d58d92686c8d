-- Integral results become integers; the rest stay floats; integers wrap.
print(6 / 3, 7 / 2)                    -- expect: 2	3.5
print(0.5 + 0.5, 0.1 * 3)              -- expect: 1	0.3
print(9223372036854775807 + 1)         -- expect: -9223372036854775808
print(1 == 1.0, 0.1 + 0.2 == 0.3)      -- expect: true	false
print(-7 % 3, 7 % -3)                  -- expect: 2	-2
print(1e15, 1e15 + 0, 1e16 * 1000)     -- expect: 1e+15	1000000000000000	1e+19
print(math.floor(-0.5))                -- expect: -1
