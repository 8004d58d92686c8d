-- Closures capture their activation's environment: variables, not values, and one variable per
-- declaration per activation, so closures made in a loop share the loop variable.
local function makeCounter(start)
  local count = start
  return function(step)
    count = count + (step or 1)
    return count
  end
end
local a = makeCounter(10)
local b = makeCounter(0)
a()
print(a(5), b())           -- expect: 16	1

local callbacks = {}
for i = 1, 3 do
  callbacks[#callbacks + 1] = function() return i * i end
end
print(callbacks[1](), callbacks[3]())   -- expect: 9	9

-- A helper function gives each closure an activation (and a value) of its own.
local function squarer(n) return function() return n * n end end
local own = {}
for i = 1, 3 do own[i] = squarer(i) end
print(own[1](), own[3]())   -- expect: 1	9

local function fib(n)
  if n < 2 then return n end
  return fib(n - 1) + fib(n - 2)
end
print(fib(20))             -- expect: 6765
