-- A dictionary of string keys (3,000 by default), each read back ten times.
--   lua5.4 bench/dictionary.lua [N]
local n = 3000
if arg[1] then n = tonumber(arg[1]) end
local d = {}
local keys = {}
for i = 1, n do
  keys[i] = string.format("key%d", i - 1)
  d[keys[i]] = i - 1
end
local sum = 0
for round = 1, 10 do
  for i = 1, n do sum = sum + d[keys[i]] end
end
-- Qel's integers are 32-bit and wrap: print the sum as that arithmetic leaves it.
sum = (sum + 0x80000000) % 0x100000000 - 0x80000000
print(sum)
