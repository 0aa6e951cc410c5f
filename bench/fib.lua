-- Recursive Fibonacci: calls, arguments, comparisons and integer arithmetic.
--   lua5.4 bench/fib.lua [N]      (default 30)
local function fib(n)
  if n < 2 then return n end
  return fib(n - 1) + fib(n - 2)
end

local n = 30
if arg[1] then n = tonumber(arg[1]) end
print(fib(n))
