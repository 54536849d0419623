-- For wrk: HMAC-SHA-256 of 28 bytes (RFC 4231, test case 2). TOKEN is the host's.
wrk.method = "POST"
wrk.headers["Content-Type"] = "application/json"
wrk.headers["Authorization"] = "Bearer " .. os.getenv("TOKEN")
wrk.body = '{"strHashAlg":4,"strKey":"SmVmZQ==","strdata":"d2hhdCBkbyB5YSB3YW50IGZvciBub3RoaW5nPw=="}'

-- With CHECKED set, each answer is looked at, and how many were wrong is told at the end.
if os.getenv("CHECKED") then
    local right = '"Data":"W9zBRr9gdU5qBCQmCJV1x1oAPwidJzmDnexYuWTsOEM="'
    local threads = {}
    wrong = 0
    function setup(thread)
        table.insert(threads, thread)
    end
    function response(status, headers, body)
        if status ~= 200 or not body:find(right, 1, true) then wrong = wrong + 1 end
    end
    function done()
        local sum = 0
        for _, thread in ipairs(threads) do sum = sum + thread:get("wrong") end
        print("Wrong answers: " .. sum)
    end
end
