local x = = 2
-- expect error: syntax.lua:1:11: expected expression
