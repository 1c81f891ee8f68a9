-- The routes of the site, one function each. A result of tarn_memdb is above 0 if all is well.

-- escape would take any user; what is no plain name, or longer than its column, is none of this site.
local function is_user(name)
    return #name <= 63 and name:find("^[+%w._-]+$") ~= nil
end

-- Nor does its file carry every contact.
local function is_contact(uri)
    return #uri <= 255 and uri:find("^sips?:[^|\\%s%c]+$") ~= nil
end

-- The row of a phone: its user, last contact, and where that came from.
local function phone_of(user)
    return "phones," .. KSR.tarn_memdb.escape(user) .. "|*|*,1"
end

-- The row of a call, whose Call-ID may hold nearly anything; its hash doesn't.
local function media_of_call()
    return "media,*|" .. KSR.pv.gete("$(ci{s.md5})") .. "|*|*|*|*|*|*|*,1"
end

-- One row for each phone, with its last contact.
local function route_register()
    local db, user, contact = KSR.tarn_memdb, KSR.pv.gete("$tU"), KSR.pv.gete("$sel(contact.uri)")
    if not is_user(user) then return KSR.sl.send_reply(400, "Bad User") end
    -- The longest that any contact asks for: 0 if all of them go.
    if tonumber(KSR.pv.gete("$expires(max)")) == 0 then
        db.delete(phone_of(user))
        return KSR.sl.send_reply(200, "Gone")
    end
    if not is_contact(contact) then return KSR.sl.send_reply(400, "Bad Contact") end
    local values = db.escape(contact) .. "|" .. KSR.pv.gete("$si")
    if db.update(phone_of(user), "*|" .. values) < 0
            and db.insert("phones," .. db.escape(user) .. "|" .. values) < 0 then
        return KSR.sl.send_reply(500, "Not Stored")
    end
    KSR.hdr.append_to_reply("Contact: <" .. contact .. ">;expires=3600\r\n")
    KSR.sl.send_reply(200, "OK")
end

-- The call's port, taken while its row exists, or null. An INVITE that comes once more, say with a
-- password, finds its row.
local function port_of_call(callee)
    local db = KSR.tarn_memdb
    local known = db.get(media_of_call(), 4)
    if known then return known end
    local port = db.get_port("INT")
    if port < 0 then return nil end
    local call, party = KSR.pv.gete("$(ci{s.md5})"), db.escape(callee)
    if db.insert("media,|" .. call .. "|a|" .. party .. "|" .. port .. "|WAN||0|0") > 0 then
        return port
    end
    db.free_port("INT", port)
    return nil
end

-- To a phone that has registered, or else to the gateway with the longest prefix of the number.
local function route_call()
    local db, callee = KSR.tarn_memdb, KSR.pv.gete("$rU")
    KSR.tm.t_newtran()
    KSR.rr.record_route()
    if not is_user(callee) then return KSR.tm.t_reply(400, "Bad User") end
    local to = db.get(phone_of(callee), 1)
    if not to then
        db.select_best_match("gateways," .. db.escape(callee) .. "|*", "|$avp(to)", 0)
        to = KSR.pv.get("$avp(to)")
    end
    if not to then return KSR.tm.t_reply(404, "Not Found") end
    local port = port_of_call(callee)
    if not port then return KSR.tm.t_reply(503, "No Media Port") end
    KSR.hdr.remove("X-Media-Port")
    KSR.hdr.append("X-Media-Port: " .. port .. "\r\n")
    KSR.pv.sets("$ru", to)
    -- A gateway is told the number that was called.
    if KSR.pv.gete("$rU") == "" then KSR.pv.sets("$rU", callee) end
    KSR.tm.t_on_failure("ksr_failure_refused")
    if KSR.tm.t_relay() < 0 then
        db.delete(media_of_call())
        KSR.tm.t_reply(500, "Not Relayed")
    end
end

function ksr_failure_refused()
    KSR.tarn_memdb.delete(media_of_call())
end

-- The end of a call takes its row away, and the port comes free with it.
local function route_inside(method)
    if method == "BYE" then KSR.tarn_memdb.delete(media_of_call()) end
    if KSR.rr.loose_route() > 0 then
        KSR.tm.t_relay()
    elseif method ~= "ACK" then
        KSR.sl.send_reply(404, "Not Here")
    end
end

function ksr_request_route()
    if KSR.maxfwd.process_maxfwd(10) < 0 then
        return KSR.sl.send_reply(483, "Too Many Hops")
    end
    local method = KSR.pv.get("$rm")
    if method == "CANCEL" then
        if KSR.tm.t_check_trans() > 0 then KSR.tm.t_relay() end
        return
    end
    -- A message that was sent again must not get a second port.
    if KSR.tmx.t_precheck_trans() > 0 then
        KSR.tm.t_check_trans()
        return
    end
    if KSR.tm.t_check_trans() == 0 then return end
    if KSR.siputils.has_totag() > 0 then
        route_inside(method)
    elseif method == "REGISTER" then
        route_register()
    elseif method == "INVITE" then
        route_call()
    elseif method == "OPTIONS" then
        KSR.sl.send_reply(200, "OK")
    elseif method ~= "ACK" then
        KSR.sl.send_reply(405, "Method Not Allowed")
    end
end
