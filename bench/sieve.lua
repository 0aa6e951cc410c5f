-- Sieve of Eratosthenes over a table of flags (two million by default): indexing and loops.
--   lua5.4 bench/sieve.lua [N]
local n = 2000000
if arg[1] then n = tonumber(arg[1]) end
local root = math.floor(math.sqrt(n))
local flags = {}
local count = 0
for i = 2, n do
  if not flags[i] then
    count = count + 1
    if i <= root then
      for j = i * i, n, i do flags[j] = true end
    end
  end
end
print(count)
