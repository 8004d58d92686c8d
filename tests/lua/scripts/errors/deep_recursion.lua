local function down(n) return down(n + 1) + 1 end
down(1)
-- expect error: stack overflow
