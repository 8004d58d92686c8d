print("a" < 1)
-- expect error: ordered comparisons require matching numbers or strings
