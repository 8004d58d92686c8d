-- os.exit ends the run at once, successfully.
for i = 1, 3 do
  print(i)  -- expect: 1
  os.exit(0)
end
print('never')
