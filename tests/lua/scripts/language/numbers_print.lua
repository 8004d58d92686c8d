-- Floats print in the shortest of fixed and exponent form, six significant digits.
print(3.14159265)        -- expect: 3.14159
print(100000000000000000000.0)  -- expect: 1e+20
print(2.5e-7)            -- expect: 2.5e-07
print(1 / 3)             -- expect: 0.333333
print(-0.25)             -- expect: -0.25
