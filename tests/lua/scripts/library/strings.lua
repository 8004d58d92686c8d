-- Pattern functions and the dialect's string extras.
print(string.find('hello world', 'wor'))        -- expect: 7	9
print(string.find('a.b', '.', 1, true))         -- expect: 2	2
print(string.match('width=640', '(%a+)=(%d+)'))  -- expect: width	640
print(string.gsub('one two', '(%w+)', '<%1>'))  -- expect: <one> <two>	2
local words = {}
for w in string.gmatch('red, green,blue', '[^,%s]+') do words[#words + 1] = w end
print(#words, words[3])                         -- expect: 3	blue
print(string.format('%3d|%-3s|%.1f', 7, 'ab', 2.25))  -- expect:   7|ab |2.2
print(('  pad  '):strip() .. '|')               -- expect: pad|
print(#string.split('a b c', ' '))              -- expect: 3
print(string.rep('-', 5))                       -- expect: -----
