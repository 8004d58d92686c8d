-- Method syntax on tables and on strings.
local Account = {}
function Account.new(balance)
  local self = {balance = balance}
  function self:deposit(amount) self.balance = self.balance + amount return self end
  return self
end
local acc = Account.new(10)
acc:deposit(5):deposit(1)
print(acc.balance)                  -- expect: 16
local s = 'Hello'
print(s:upper(), s:lower(), s:len(), s:sub(2, 3))  -- expect: HELLO	hello	5	el
print(('%d-%d'):format(1, 2))       -- expect: 1-2
