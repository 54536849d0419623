-- For wrk: HMAC-SHA-256 of 28 bytes (RFC 4231, test case 2). TOKEN is the host's.
wrk.method = "POST"
wrk.headers["Content-Type"] = "application/json"
wrk.headers["Authorization"] = "Bearer " .. os.getenv("TOKEN")
wrk.body = '{"strHashAlg":4,"strKey":"SmVmZQ==","strdata":"d2hhdCBkbyB5YSB3YW50IGZvciBub3RoaW5nPw=="}'
