-- A string literal takes methods directly, and ("x").name reports the string-indexing rule.
print(("abc"):upper())   -- expect: ABC
print(("abc").x)
-- expect error: string indexing only supports library methods
