-- Self-referencing structures and recursive local functions are freed (cycle collection).
for i = 1, 30000 do
  local node = {}
  node.self = node
  local function loop(n) if n > 0 then return loop(n - 1) end return n end
  loop(2)
end
print('done')  -- expect: done
