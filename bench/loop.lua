-- A loop over locals, ten million iterations by default.
--   lua5.4 bench/loop.lua [N]
local n = 10000000
if arg[1] then n = tonumber(arg[1]) end
local sum = 0
for i = 0, n - 1 do sum = sum + (i & 7) end
print(sum)
