-- Method calls on one object, two million by default.
--   lua5.4 bench/methods.lua [N]
local Counter = {}
Counter.__index = Counter

function Counter.new()
  return setmetatable({n = 0}, Counter)
end

function Counter:add(k)
  self.n = self.n + k
  return self.n
end

local count = 2000000
if arg[1] then count = tonumber(arg[1]) end
local c = Counter.new()
for i = 0, count - 1 do c:add(1) end
print(c:add(0))
