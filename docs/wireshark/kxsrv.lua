-- Shows in Wireshark and tshark what travels between a client and a KXSRV. README.md beside this
-- file tells how to install it, ../protocol.md what the messages mean.
--
-- A new request code is a row of REQUESTS; what its messages hold that no other does is a part.

local kxsrv = Proto("kxsrv", "KXSRV Protocol")

local PORT = 4800
local HEADER_SIZE = 12
local GREETING_SIZE = 4

-- Most bytes behind the header of a request and of a reply, pad bytes included.
local MOST_PARAMETERS = 65536
local MOST_RESULT = 32768

kxsrv.prefs.show_password = Pref.bool("Show passwords", false,
    "Show passwords among the fields. The bytes of the packet show them in any case.")

-- Fields

local fields = {} -- by the names they have in display filters, behind the prefix "kxsrv."

local function add_field(kind, name, label, ...)
    fields[name] = ProtoField[kind]("kxsrv." .. name, label, ...)
end

add_field("uint32", "connection_id", "Connection identifier")
add_field("uint32", "parameter_length", "Parameter length")
add_field("uint32", "result_length", "Result length")
add_field("uint32", "pad_length", "Pad length")
add_field("int32", "result", "Result")
add_field("none", "pad", "Pad bytes")
add_field("none", "excess", "Bytes behind the last field")
add_field("none", "unknown", "Bytes of unknown meaning")

add_field("framenum", "reply_in", "Reply in", base.NONE, frametype.RESPONSE)
add_field("framenum", "request_in", "Request in", base.NONE, frametype.REQUEST)
add_field("relative_time", "time", "Time from request to reply")

add_field("uint32", "mode", "Open mode", base.HEX)
add_field("uint32", "mode.access", "Access", base.DEC,
    {[0] = "read", [1] = "write", [2] = "read and write"}, 0x07)
add_field("uint32", "mode.sharing", "Others may", base.DEC,
    {[0] = "read and write", [1] = "do nothing", [2] = "read", [3] = "write",
     [4] = "read and write"}, 0x70)
add_field("string", "name", "File name")
add_field("uint64", "offset", "Offset")
add_field("uint64", "length", "Length")
add_field("bytes", "data", "Data")
add_field("uint32", "size", "Size in bytes")
add_field("uint32", "units", "Size in units of 16 bytes")
add_field("uint32", "free_blocks", "Free blocks")
add_field("uint32", "block_size", "Bytes in a block")
add_field("string", "user", "User identification")
add_field("string", "password", "Password")
add_field("uint32", "connection", "Connection number")
add_field("int32", "connections", "Number of connections")
add_field("uint32", "log_level", "Logging level", base.DEC,
    {[0] = "information", [1] = "warning", [2] = "error", [3] = "debug"})
add_field("ipv4", "address", "Client address")
add_field("uint32", "data_limit", "Data limit")
add_field("uint32", "server_type", "Server type", base.DEC, {[0] = "KXSRV", [1] = "PXSRV"}, 0x03)
add_field("string", "version", "Version")
add_field("uint32", "version_number", "Version number", base.HEX)
add_field("string", "text", "Text")
add_field("string", "error", "Error text")

-- Notes

local notes = {}

local function add_note(name, label, group, severity)
    notes[name] = ProtoExpert.new("kxsrv.note." .. name, label, group, severity)
end

add_note("refused", "The server refuses the connection", expert.group.RESPONSE_CODE,
    expert.severity.WARN)
add_note("failed", "The server reports an error", expert.group.RESPONSE_CODE, expert.severity.NOTE)
add_note("unknown_code", "The request code is not used", expert.group.PROTOCOL,
    expert.severity.WARN)
add_note("too_long", "Longer than the protocol allows", expert.group.PROTOCOL,
    expert.severity.ERROR)
add_note("cut_short", "The message ends before its fields do", expert.group.MALFORMED,
    expert.severity.ERROR)
add_note("excess", "The message goes on behind its last field", expert.group.PROTOCOL,
    expert.severity.NOTE)
add_note("wrong_amount", "Not the number of bytes that the request tells",
    expert.group.PROTOCOL, expert.severity.WARN)
add_note("in_part", "The message is here in part only", expert.group.UNDECODED,
    expert.severity.NOTE)
add_note("unasked", "The request is not known", expert.group.SEQUENCE,
    expert.severity.NOTE)
add_note("stray", "No message is known to begin here", expert.group.SEQUENCE,
    expert.severity.NOTE)

-- Parts of messages

-- Kinds of values: how the Info column shows one, and whether it needs no word to say what it is.
local NUMBER = {
    show = function(range) return tostring(range:uint64()) end,
}
local HEXADECIMAL = {
    show = function(range) return string.format("0x%x", range:uint()) end,
}
local ADDRESS = {
    show = function(range) return tostring(range:ipv4()) end,
}
local TEXT = {
    show = function(range) return (range:string(ENC_UTF_8):gsub("%c", ".")) end,
    encoding = ENC_UTF_8,
    bare = true,
}
local LINES = {
    show = function(range)
        return string.format("%d lines", select(2, range:raw():gsub("\n", "")))
    end,
    encoding = ENC_UTF_8,
    bare = true,
    lined = true,
}
local BYTES = {
    show = function(range) return string.format("%d bytes", range:len()) end,
    bare = true,
}

-- Sizes that a part tells for itself: all that is left, or up to a NUL and with it.
local REST, TO_NUL = "rest", "to NUL"

-- What parameters and result data are made of: a field, its size in bytes and its kind. A value has
-- `most` bytes, without its NUL; `bits` are fields within a number; what is `secret` is shown on
-- demand alone. What is `counted` has as many bytes as the request says in the part that `counts`.
local function new_part(field, size, kind, particulars)
    local made = particulars or {}
    made.field, made.size = field, size
    return setmetatable(made, {__index = kind})
end

local mode = new_part("mode", 4, HEXADECIMAL, {bits = {"mode.access", "mode.sharing"}})
local name = new_part("name", REST, TEXT, {most = 1023})
local name_nul = new_part("name", TO_NUL, TEXT, {most = 1024})
local offset = new_part("offset", 4, NUMBER)
local wide_offset = new_part("offset", 8, NUMBER)
local length = new_part("length", 4, NUMBER, {counts = true})
local wide_length = new_part("length", 8, NUMBER)
local data_written = new_part("data", REST, BYTES, {most = 32768, counted = "exactly"})
local data_read = new_part("data", REST, BYTES, {most = 32768, counted = "at most"})
local size = new_part("size", 4, NUMBER)
local units = new_part("units", 4, NUMBER)
local free_blocks = new_part("free_blocks", 4, NUMBER)
local block_size = new_part("block_size", 4, NUMBER)
local user = new_part("user", TO_NUL, TEXT, {most = 50, bare = false})
local password = new_part("password", TO_NUL, TEXT, {most = 30, bare = false, secret = true})
local connection = new_part("connection", 4, NUMBER)
local log_level = new_part("log_level", 4, NUMBER)
local address = new_part("address", 4, ADDRESS, {bare = true})
local data_limit = new_part("data_limit", 4, NUMBER, {bare = true})
local server_type = new_part("server_type", 4, NUMBER)
local version = new_part("version", REST, TEXT)
local version_nul = new_part("version", TO_NUL, TEXT)
local version_number = new_part("version_number", 4, HEXADECIMAL)
local listing = new_part("text", REST, LINES)
local error_text = new_part("error", TO_NUL, TEXT)
local unknown = new_part("unknown", REST, BYTES)

-- Request codes: the name in client/protocol.h, what people call it, the parameters, the result
-- data of a success. The last column is the field of a positive result that is no error.
local REQUESTS = {
    [1] = {"FILE_OPEN", "open file", {mode, name}, {}},
    [2] = {"FILE_CLOSE", "close file", {}, {}},
    [3] = {"FILE_READ", "read", {offset, length}, {data_read}},
    [4] = {"FILE_WRITE", "write", {offset, length, data_written}, {}},
    [7] = {"FILE_CREATE", "create file", {mode, name}, {}},
    [8] = {"FILE_GET_EOF", "end of file", {}, {size}},
    [9] = {"GET_MAX_DATA", "data limit", {}, {data_limit}},
    [10] = {"DISCONNECT", "disconnect", {}, {}},
    [11] = {"VERIFY_PASSWORD", "verify password", {user, password}, {}},
    [12] = {"GET_INTERNET_ADDRESS", "client address", {}, {address}},
    [13] = {"GET_KXSRV_STATS", "server statistics", {}, {listing}},
    [14] = {"GET_CONNECTION_LIST", "connection list", {}, {listing}, "connections"},
    [15] = {"GET_CONNECTION_STATS", "connection statistics", {connection}, {listing}},
    [16] = {"KILL_CONNECTION", "kill connection", {connection}, {}},
    [17] = {"STOP_SERVER", "stop server", {}, {}},
    [20] = {"SET_LOG_LEVEL", "set logging level", {log_level}, {}},
    [21] = {"GET_LOCK_LIST", "lock list", {connection}, {listing}},
    [24] = {"GET_OPTIONS", "server options", {}, {listing}},
    [25] = {"GET_VERSION", "server version", {}, {version_nul, version_number}},
    [26] = {"FILE_GET_VOL_SPACE", "volume space", {name_nul}, {free_blocks, block_size}},
    [28] = {"QUERY_SERVER_TYPE", "server type", {}, {server_type, version}},
    [32] = {"16GB_FILE_GET_EOF", "16 GB end of file", {}, {units}},
    [36] = {"16GB_FILE_READ", "16 GB read", {wide_offset, length}, {data_read}},
    [39] = {"16GB_FILE_WRITE", "16 GB write", {wide_offset, length, data_written}, {}},
    [47] = {"16GB_LARGE_LOCK", "16 GB lock", {wide_offset, wide_length}, {}},
    [48] = {"16GB_LARGE_UNLOCK", "16 GB unlock", {wide_offset, wide_length}, {}},
}

local code_names = {}
for code, row in pairs(REQUESTS) do
    row.title, row.parameters, row.results, row.count = row[2], row[3], row[4], row[5]
    code_names[code] = "REQUEST_" .. row[1]
end

local function title(code)
    local row = REQUESTS[code]
    return row and row.title or string.format("request %.0f", code)
end

add_field("uint32", "opcode", "Request code", base.DEC, code_names)
kxsrv.fields = fields
kxsrv.experts = notes

-- What the messages of a connection have to do with each other

local tcp_stream = Field.new("tcp.stream")
local tcp_seq = Field.new("tcp.seq")
local tcp_ack = Field.new("tcp.ack")
local tcp_lost = Field.new("tcp.analysis.lost_segment")
local tcp_ack_lost = Field.new("tcp.analysis.ack_lost_segment")

-- Frames are dissected in their order once, and then again in any, without the fields above. What a
-- message is depends on those before it, so it is found out the first time and kept.
local connections -- by TCP stream: where its two sides stand
local messages -- by frame, then by the place in it

function kxsrv.init()
    connections, messages = {}, {}
end

-- The connection of a frame seen for the first time. A side is in step when its next byte begins a
-- message; `waiting` are the requests without a reply, eldest first.
local function connection_of(side)
    local stream = tcp_stream().value
    local known = connections[stream] or {in_step = {}, waiting = {}, greeted = false}
    connections[stream] = known
    if tcp_lost() or tcp_ack_lost() then
        -- What is missing may have been a reply, but not to a request that was sent behind it.
        local last = known.waiting[#known.waiting]
        local begins_reply = side == "server" and last and last.ack == tcp_seq().value
        known.in_step = {server = begins_reply}
        known.waiting = {begins_reply and last or nil}
    end
    return known
end

local function nstime(seconds)
    local whole = math.floor(seconds)
    return NSTime.new(whole, math.floor((seconds - whole) * 1e9 + 0.5))
end

-- What begins where `bytes`, the rest of a segment, do: the kind and the size of the message, or
-- how much of it is `missing`.
local function recognise(bytes, side, known, may_wait)
    local held = bytes:len()
    local stray = {kind = "stray", size = held}
    -- The greeting comes alone, as nothing else is sent before there is a request.
    if side == "server" and not known.greeted and held <= GREETING_SIZE then
        if held == GREETING_SIZE then
            return {kind = "greeting", size = GREETING_SIZE, fits = true}
        end
        return may_wait and {missing = GREETING_SIZE - held} or stray
    end

    local in_step = known.in_step[side]
    if held < HEADER_SIZE then
        return in_step and may_wait and {missing = DESEGMENT_ONE_MORE_SEGMENT} or stray
    end
    local body = bytes(4, 4):uint() + bytes(8, 4):uint()
    local all = HEADER_SIZE + body
    local likely, fits
    if side == "client" then
        likely, fits = REQUESTS[bytes(0, 4):uint()], body <= MOST_PARAMETERS
    else
        likely, fits = all == held, body <= MOST_RESULT
    end
    if not in_step and not (likely and fits) then
        return stray -- data, in which any number may stand where a header has its own
    end
    if fits and all > held and may_wait then
        return {missing = all - held}
    end
    -- Behind lengths over the limit nobody knows where the next message begins.
    return {kind = side == "client" and "request" or "reply", size = fits and all or held,
            fits = fits}
end

-- Takes a message that has just been recognised into account. `travelled` is the size of the rest of
-- the segment, of which the capture may hold less. The sides take turns, so that a message of one
-- puts the other in step too.
local function follow(message, bytes, travelled, side, known, pinfo)
    known.in_step.client = message.kind ~= "stray"
    known.in_step.server = message.kind ~= "stray"
    known.in_step[side] = known.in_step[side] and message.fits and message.size <= travelled
    known.greeted = known.greeted or side == "server" -- or the capture has begun later
    if message.kind == "request" then
        message.exchange = {code = bytes(0, 4):uint(), ack = tcp_ack().value,
                            frame = pinfo.number, time = pinfo.rel_ts}
        table.insert(known.waiting, message.exchange)
    elseif message.kind == "reply" then
        local exchange = table.remove(known.waiting, 1)
        if exchange then
            exchange.reply_frame = pinfo.number
            exchange.elapsed = nstime(pinfo.rel_ts - exchange.time)
        end
        message.exchange = exchange
    end
end

-- The message at `start`, as it was found the first time.
local function message_at(tvb, start, pinfo)
    local side = pinfo.src_port == pinfo.match_uint and "server" or "client"
    local frame = messages[pinfo.number] or {connection = connection_of(side), at = {}}
    messages[pinfo.number] = frame
    local place = tvb:offset() + start
    if not frame.at[place] then
        local bytes = tvb:range(start)
        local message = recognise(bytes, side, frame.connection, pinfo.can_desegment > 0)
        message.is_first = next(frame.at) == nil
        frame.at[place] = message
        if not message.missing then
            local travelled = tvb:reported_length_remaining(start)
            follow(message, bytes, travelled, side, frame.connection, pinfo)
        end
    end
    return frame.at[place]
end

-- Showing

-- A view is a message being shown: its `bytes`, whether they are the `whole` of it, whether it
-- `fits` the limits, the `tree` of its fields, the words of its `summary`, and the `exchange` that it
-- belongs to, where one is known.

local function warn(item, note, ...)
    item:add_proto_expert_info(notes[note], string.format(...))
end

-- How many bytes the part takes of those between `from` and `to`, and how many of these are its
-- value; nothing when it is not there whole.
local function extent(part, bytes, from, to)
    if part.size == REST then
        return to - from, to - from
    elseif part.size == TO_NUL then
        local nul = bytes:range(from, to - from):raw():find("\0", 1, true)
        if nul then
            return nul, nul - 1
        end
    elseif part.size <= to - from then
        return part.size, part.size
    end
end

local function check_amount(part, range, item, told)
    local held = range:len()
    if part.most and held > part.most then
        warn(item, "too_long", "%d bytes, of which %d are allowed", held, part.most)
    elseif told and (part.counted == "exactly" and held ~= told or
                     part.counted == "at most" and held > told) then
        warn(item, "wrong_amount", "%d bytes, where the request says %.0f", held, told)
    end
end

local function show_part(view, part, range)
    local hidden = part.secret and not kxsrv.prefs.show_password
    local item = hidden and view.tree:add(range, "Password: shown by a preference of the protocol")
        or view.tree:add_packet_field(fields[part.field], range, part.encoding or ENC_BIG_ENDIAN)
    for _, bits in ipairs(part.bits or {}) do
        item:add(fields[bits], range)
    end
    if part.lined then
        for first, line in range:raw():gmatch("()([^\n]+)") do
            local of_line = range(first - 1, #line)
            item:add(of_line, of_line:string(ENC_UTF_8))
        end
    end
    if part.counts then
        view.exchange.told = range:uint()
    end
    if view.whole then
        check_amount(part, range, item, view.exchange and view.exchange.told)
    end
    if range:len() > 0 and not hidden then
        local label = part.bare and "" or part.field:gsub("_", " ") .. " "
        table.insert(view.summary, label .. part.show(range))
    end
end

-- Shows the bytes between `from` and `to` as the parts that they should be.
local function show_parts(view, parts, from, to)
    for _, part in ipairs(parts) do
        local taken, valued = extent(part, view.bytes, from, to)
        if not taken then
            local item = view.tree:add(fields.unknown, view.bytes:range(from, to - from))
            if view.whole then
                warn(item, "cut_short", "No whole %s here", part.field:gsub("_", " "))
            end
            return
        end
        show_part(view, part, view.bytes:range(from, valued))
        from = from + taken
    end
    if from < to then
        local item = view.tree:add(fields.excess, view.bytes:range(from, to - from))
        warn(item, "excess", "%d bytes behind the last field", to - from)
    end
end

-- Shows the lengths of a header and what stands behind it. Where the lengths are over the limit
-- nobody reads on.
local function show_body(view, length_field, most, parts)
    local bytes, tree = view.bytes, view.tree
    local pad_length, body_length = bytes:range(4, 4):uint(), bytes:range(8, 4):uint()
    tree:add(fields.pad_length, bytes:range(4, 4))
    local item = tree:add(fields[length_field], bytes:range(8, 4))
    if not view.fits then
        local both = pad_length + body_length
        warn(item, "too_long", "%.0f bytes, of which %d are allowed", both, most)
        table.insert(view.summary, "too long")
        return
    end
    local to = math.min(HEADER_SIZE + body_length, bytes:len())
    show_parts(view, parts, HEADER_SIZE, to)
    if to < bytes:len() then
        tree:add(fields.pad, bytes:range(to))
    end
end

local function show_greeting(view)
    local id = view.bytes:range(0, GREETING_SIZE)
    local item = view.tree:add(fields.connection_id, id)
    if id:uint() == 0 then
        warn(item, "refused", "The server refuses the connection")
        return "connection refused"
    end
    return string.format("connection %.0f", id:uint())
end

local function show_request(view)
    local exchange = view.exchange
    local row = REQUESTS[exchange.code]
    local item = view.tree:add(fields.opcode, view.bytes:range(0, 4))
    if not row then
        warn(item, "unknown_code", "No request has the code %.0f", exchange.code)
    end
    show_body(view, "parameter_length", MOST_PARAMETERS, row and row.parameters or {unknown})
    if exchange.reply_frame then
        view.tree:add(fields.reply_in, exchange.reply_frame):set_generated()
    end
    return title(exchange.code)
end

-- Shows the result and tells what result data follow it.
local function show_result(view, row)
    local range = view.bytes:range(0, 4)
    local result = range:int()
    local item = view.tree:add(fields.result, range)
    if result == 0 then
        return row and row.results or {unknown}
    elseif result > 0 and row and row.count then
        view.tree:add(fields[row.count], range):set_generated()
        table.insert(view.summary, string.format("%s %d", row.count, result))
        return row.results
    end
    local kind = result > 0 and "system error" or "protocol error"
    item:append_text(" (" .. kind .. ")")
    warn(item, "failed", "The server reports a %s", kind)
    table.insert(view.summary, string.format("%s %d", kind, result))
    return result > 0 and {error_text} or {}
end

local function show_reply(view)
    local exchange = view.exchange
    local parts = show_result(view, exchange and REQUESTS[exchange.code])
    show_body(view, "result_length", MOST_RESULT, parts)
    if not exchange then
        warn(view.tree, "unasked", "The request is not known")
        return "reply"
    end
    view.tree:add(fields.opcode, exchange.code):set_generated()
    view.tree:add(fields.request_in, exchange.frame):set_generated()
    view.tree:add(fields.time, exchange.elapsed):set_generated()
    return "reply to " .. title(exchange.code)
end

local function show_stray(view)
    -- The bytes are not shown: a password may be among them.
    local item = view.tree:add(fields.unknown, view.bytes:range())
    warn(item, "stray", "%d bytes, with which no message is known to begin", view.bytes:len())
    return "continuation"
end

local SHOW = {
    greeting = show_greeting, request = show_request, reply = show_reply, stray = show_stray,
}

local function show(message, bytes, pinfo, tree)
    local view = {
        bytes = bytes,
        whole = bytes:len() == message.size,
        tree = tree:add(kxsrv, bytes:range()),
        summary = {},
        exchange = message.exchange,
        fits = message.fits,
    }
    if not view.whole then
        warn(view.tree, "in_part", "%d bytes of %d", bytes:len(), message.size)
    end
    local heading = SHOW[message.kind](view)
    if #view.summary > 0 then
        heading = heading .. ": " .. table.concat(view.summary, ", ")
    end
    view.tree:append_text(", " .. heading)
    if message.is_first then -- in the frame, which may be handed over in pieces
        pinfo.cols.info:set(heading)
    else
        pinfo.cols.info:append(" | " .. heading)
    end
end

function kxsrv.dissector(tvb, pinfo, tree)
    pinfo.cols.protocol = "KXSRV"
    local start = 0
    while start < tvb:len() do
        local message = message_at(tvb, start, pinfo)
        if message.missing then
            pinfo.desegment_offset = start
            pinfo.desegment_len = message.missing
            break
        end
        local held = math.min(message.size, tvb:len() - start)
        show(message, tvb:range(start, held):tvb(), pinfo, tree)
        start = start + held
    end
end

DissectorTable.get("tcp.port"):add(PORT, kxsrv)
