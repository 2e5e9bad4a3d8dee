-- wrk script of bench/soak.py: rotates every connection of a wrk thread over
-- the request mix, checks every reply, and stops the thread after its quota
-- of replies; soak.py then ends wrk with SIGINT, which makes it report at
-- once instead of waiting out its duration. Argument (after "--"): the quota of replies per thread.
-- Every reply must be 200; a JSON reply must carry "return" 0 (every request
-- of the mix is one that succeeds). A churned name is unregistered LAG mix
-- cycles after it was registered, long after its registration was answered;
-- the next chunk uses the same names, so the names left registered at the
-- end of a chunk are re-registered and then removed by the next one.

local LAG = 50
local SERVICES = 100
local JSON_OK = '^{ "return": 0[ ,}]'

-- One mix cycle, the cheap reads more often. Every SERVICES_EVERY-th
-- request (a multiple of the cycle, so it always takes the place of the
-- first "info") is a "start" post: each one costs the device a thread and
-- two program starts, so they come rarely.
local MIX = {"info", "register", "health", "web", "unregister", "info", "health", "web",
             "info", "register", "health", "web", "unregister", "history", "info", "web"}
local SERVICES_EVERY = 256

local threads = {}
local next_id = 0

function setup(thread)
    thread:set("id", next_id)
    next_id = next_id + 1
    table.insert(threads, thread)
end

local quota, id
local sent, replies, bad = 0, 0, 0

function init(args)
    quota = tonumber(args[1])
    id = wrk.thread:get("id")
end

local function churn_name(cycle, slot)
    return string.format("churn%d-%d-%d", id, cycle, slot)
end

local BUILD = {}
BUILD = {
    info = function(cycle)
        return wrk.format("GET", string.format(
            "/managerService/svcmgr?method=get_info&name=svc%04d", cycle % SERVICES))
    end,
    register = function(cycle, slot)
        local body = string.format('{"method":"register","name":"%s","ip":"127.7.%d.%d","port":%d}',
            churn_name(cycle, slot), id, slot, cycle)
        return wrk.format("POST", "/managerService/svcmgr", nil, body)
    end,
    unregister = function(cycle, slot)
        if cycle < LAG then
            return BUILD.info(cycle)
        end
        return wrk.format("DELETE", "/managerService/svcmgr?method=unregister&name="
            .. churn_name(cycle - LAG, slot))
    end,
    health = function()
        return wrk.format("GET", "/managerService/svcmon?method=get_health_status")
    end,
    web = function()
        return wrk.format("GET", "/managerService/svcmon/web/index.html")
    end,
    history = function()
        return wrk.format("GET", "/managerService/svcmon?method=get_history&name=historian")
    end,
    services = function()
        return wrk.format("POST", "/managerService/services", nil, '{"method":"start"}')
    end,
}

function request()
    local position = sent % #MIX
    local cycle = math.floor(sent / #MIX)
    local slot = position < #MIX / 2 and 0 or 1
    local kind = sent % SERVICES_EVERY == 0 and "services" or MIX[position + 1]
    sent = sent + 1
    return BUILD[kind](cycle, slot)
end

function response(status, headers, body)
    replies = replies + 1
    local json = headers["Content-Type"] == "application/json"
    if status ~= 200 or (json and not body:find(JSON_OK)) then
        bad = bad + 1
        wrk.thread:set("bad", bad)
        if bad == 1 then
            wrk.thread:set("first_bad", status .. " " .. body:sub(1, 200))
        end
    end
    if replies == quota then
        io.stderr:write("SOAK thread done\n")
        io.stderr:flush()
        wrk.thread:stop()
    end
end

-- Machine-readable summary for soak.py: counts, then the latency quantile
-- function in steps of 0.1 % so that chunks can be pooled.
function done(summary, latency)
    local total_bad, sample = 0, ""
    for _, thread in ipairs(threads) do
        total_bad = total_bad + (thread:get("bad") or 0)
        local first = thread:get("first_bad") or ""
        if sample == "" then sample = first end
    end
    local e = summary.errors
    io.write(string.format("SOAK requests %d duration_us %d bad %d socket %d status %d max_us %d\n",
        summary.requests, summary.duration, total_bad, e.connect + e.read + e.write + e.timeout,
        e.status, latency.max))
    if sample ~= "" then
        io.write("SOAK first_bad " .. sample:gsub("\n", " ") .. "\n")
    end
    for step = 1, 1000 do
        io.write(string.format("SOAK q %d\n", latency:percentile(step / 10)))
    end
end
