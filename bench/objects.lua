-- Object creations, one million by default, each released when the next replaces it.
--   lua5.4 bench/objects.lua [N]
local Point = {}
Point.__index = Point

function Point.new(a, b)
  return setmetatable({x = a, y = b}, Point)
end

local n = 1000000
if arg[1] then n = tonumber(arg[1]) end
local p
for i = 0, n - 1 do p = Point.new(i, i + 1) end
print("done")
