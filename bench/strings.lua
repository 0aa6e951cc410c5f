-- Formatted strings and their lengths, 200,000 by default.
--   lua5.4 bench/strings.lua [N]
local n = 200000
if arg[1] then n = tonumber(arg[1]) end
local total = 0
for i = 0, n - 1 do total = total + #string.format("k%d", i) end
print(total)
