-- Wireshark dissector for the Orvex game protocol (docs/protocol.md): the TCP stream of
-- reliable messages and the UDP datagrams, both ways, on one server port (7777 by default).
--
--   tshark -X lua_script:tools/wireshark/orvex.lua -r capture.pcap -V
--
-- The protocol is found on any port: heuristic dissectors take a TCP stream that opens with
-- the hello (lead byte 0x07 and the magic) and a datagram that opens with the magic, and
-- "Decode As" or the port preference work as well. Direction comes from the conversation:
-- the endpoint a hello went to is the server, on TCP and on UDP alike (the server's socket
-- shares its port); only traffic seen before any hello falls back to the port preference.
-- State datagrams whose sequence goes back get an expert warning. TCP messages
-- carry no length prefix, so each one is measured first (a dry run of its decoder) and
-- TCP is asked for more bytes when the segment ends inside it. The client's hello is told
-- apart by its lead byte 0x07, which no other client message starts with. The server's
-- first bytes in a connection (after a hello, or the first seen) are taken as the welcome
-- (status 1) or the refusal (a status that is no server code); a capture that starts after
-- the handshake decodes as messages.
-- Malformed input becomes an expert-info error, never a Lua error.

local orvex = Proto("orvex", "Orvex game protocol")
orvex.prefs.port = Pref.uint("Server port", 7777, "TCP and UDP port of the game server")

local MAGIC = "TOVRANE!"
local TEXT_CAP = 65535 -- refusal reason and mod names, as the client reads them
local BLOCK_CAP = 16 * 1024 * 1024 -- any other string or embedded stream
local TOKEN_CAP, PASSWORD_CAP = 64, 1024

local CODES = {
  [0x02] = "Disconnect", [0x03] = "Keep-alive", [0x04] = "World", [0x05] = "Admin status",
  [0x06] = "Password", [0x40] = "Entity create", [0x41] = "Entity destroy",
  [0x42] = "Entity update", [0x43] = "Entity action", [0x44] = "Transforms",
  [0x45] = "Physics", [0x46] = "Entity move", [0x7F] = "Module message",
}
local SERVER_TCP_CODES = { [0x02] = true, [0x04] = true, [0x05] = true, [0x40] = true,
  [0x41] = true, [0x42] = true, [0x46] = true, [0x7F] = true }

local f = {
  code = ProtoField.uint8("orvex.code", "Code", base.HEX, CODES),
  lead = ProtoField.uint8("orvex.lead", "Lead byte", base.HEX),
  magic = ProtoField.string("orvex.magic", "Magic"),
  length = ProtoField.uint32("orvex.length", "Length"),
  hello_version = ProtoField.uint32("orvex.hello.version", "Hello version"),
  token = ProtoField.string("orvex.hello.token", "Token"),
  marker = ProtoField.uint8("orvex.hello.password_marker", "Password marker", base.HEX),
  password = ProtoField.string("orvex.hello.password", "Password"),
  status = ProtoField.uint8("orvex.status", "Status", base.DEC,
    { [0] = "refused", [1] = "accepted" }),
  version = ProtoField.uint16("orvex.version", "Networking version"),
  tag = ProtoField.uint16("orvex.server_tag", "Server tag", base.HEX),
  player = ProtoField.uint64("orvex.player_id", "Player id"),
  username = ProtoField.string("orvex.welcome.username", "User name"),
  mod = ProtoField.string("orvex.welcome.mod", "Mod"),
  mode = ProtoField.int32("orvex.welcome.mode", "Game mode"),
  config = ProtoField.string("orvex.welcome.config", "Configuration text"),
  reason = ProtoField.string("orvex.refusal.reason", "Reason"),
  world = ProtoField.string("orvex.world", "World"),
  privilege = ProtoField.string("orvex.admin.privilege", "Privilege"),
  admin = ProtoField.uint8("orvex.admin.flag", "Admin"),
  interface = ProtoField.string("orvex.interface", "Interface text"),
  smooth = ProtoField.uint8("orvex.smooth", "Smooth"),
  force_snap = ProtoField.uint8("orvex.force_snap", "Force snap"),
  data_len = ProtoField.uint32("orvex.data.length", "Data length"),
  data = ProtoField.bytes("orvex.data", "Data"),
  module = ProtoField.string("orvex.module", "Module"),
  module_prefix = ProtoField.uint64("orvex.module.prefix", "Prefix word"),
  module_name = ProtoField.uint64("orvex.module.name", "Name word"),
  time = ProtoField.double("orvex.state.time", "Server time"),
  sequence = ProtoField.uint64("orvex.state.sequence", "Sequence"),
  parent_env = ProtoField.uint64("orvex.state.parent_env", "Parent environment"),
  relative_env = ProtoField.uint64("orvex.state.relative_env", "Relative environment"),
  divisor = ProtoField.int32("orvex.state.divisor", "Update divisor"),
  records = ProtoField.uint32("orvex.state.records", "Records"),
  trailing = ProtoField.bytes("orvex.trailing", "Bytes after the message"),
}
-- Entity ids by role: the 28-character text form and the two words.
local function id_fields(role, label)
  local p = "orvex." .. role
  f[role .. "_text"] = ProtoField.string(p, label)
  f[role .. "_w0"] = ProtoField.uint64(p .. ".word0", "Word 0", base.HEX)
  f[role .. "_w1"] = ProtoField.uint64(p .. ".word1", "Word 1", base.HEX)
  return { text = f[role .. "_text"], w0 = f[role .. "_w0"], w1 = f[role .. "_w1"] }
end
local ENTITY = id_fields("entity", "Entity")
local PARENT = id_fields("parent", "Parent")
local SECOND = id_fields("second", "Second id (ignored by the client)")
local END_MARKER = id_fields("end", "End marker")
-- Three-component vectors and quaternions by role.
local function vec_fields(role, label, names, ftype)
  local out = { label = label }
  for _, n in ipairs(names) do
    out[n] = ftype("orvex." .. role .. "." .. n, label .. " " .. n)
    f[role .. "_" .. n] = out[n]
  end
  return out
end
local POSITION = vec_fields("position", "Position", { "x", "y", "z" }, ProtoField.double)
local WXYZ = { "w", "x", "y", "z" }
local ORIENTATION = vec_fields("orientation", "Orientation", WXYZ, ProtoField.double)
local ORIENTATION32 = vec_fields("orientation32", "Orientation", WXYZ, ProtoField.float)
local VELOCITY = vec_fields("velocity", "Velocity", { "x", "y", "z" }, ProtoField.double)
local VECTOR2 = vec_fields("vector2", "Second vector", { "x", "y", "z" }, ProtoField.double)

local e_malformed = ProtoExpert.new("orvex.malformed", "Malformed message",
  expert.group.MALFORMED, expert.severity.ERROR)
local e_unknown = ProtoExpert.new("orvex.unknown_code", "Unknown code",
  expert.group.PROTOCOL, expert.severity.WARN)
local e_note = ProtoExpert.new("orvex.note", "Note", expert.group.PROTOCOL, expert.severity.NOTE)
local e_stale = ProtoExpert.new("orvex.sequence.stale", "Sequence below the newest",
  expert.group.SEQUENCE, expert.severity.WARN)
local e_repeated = ProtoExpert.new("orvex.sequence.repeated", "Sequence repeated",
  expert.group.SEQUENCE, expert.severity.NOTE)

local field_list = {}
for _, v in pairs(f) do field_list[#field_list + 1] = v end
orvex.fields = field_list
orvex.experts = { e_malformed, e_unknown, e_note, e_stale, e_repeated }

-- pinfo.port_type values (Wireshark's enum port_type).
local PT_TCP, PT_UDP = 2, 3

-- Texts -------------------------------------------------------------------------------

local UPPER = " 0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ"
local LOWER = " 0123456789abcdefghijklmnopqrstuvwxyz"
local ZERO, B37 = UInt64(0), UInt64(37)

-- A ModuleID word: base 37, first character least significant.
local function unpack37(word, alphabet)
  local out = {}
  repeat
    local d = (word % B37):tonumber()
    out[#out + 1] = alphabet:sub(d + 1, d + 1)
    word = word / B37
  until word == ZERO
  return table.concat(out)
end

local function module_text(prefix, name)
  if prefix == ZERO or name == ZERO then return "" end
  return unpack37(prefix, UPPER) .. "_" .. unpack37(name, LOWER)
end

-- Bytes 0-3 as a tag (non-printing bytes as '.'), bytes 4-15 as capital hex; "" for null.
local function id_text(range)
  local w0, w1 = range:range(0, 8):le_uint64(), range:range(8, 8):le_uint64()
  if w0 == ZERO or w1 == ZERO then return "" end
  local tag = range:range(0, 4):string():gsub("[^%w%p ]", ".")
  return tag .. range:range(4, 12):bytes():tohex()
end

local function num(v) return string.format("%g", v) end

-- Reader ------------------------------------------------------------------------------
-- Reads fields in order from `pos` and, when it has a tree, adds them to it. Bytes that
-- run out raise {more = n}; a count over its cap raises {bad = text}.

local Reader = {}
Reader.__index = Reader

local function reader(tvb, pos, tree)
  return setmetatable({ tvb = tvb, pos = pos, len = tvb:len(), tree = tree }, Reader)
end

function Reader:left() return self.len - self.pos end

function Reader:take(n)
  if self.pos + n > self.len then error({ more = self.pos + n - self.len }, 0) end
  local r = n > 0 and self.tvb:range(self.pos, n) or nil
  self.pos = self.pos + n
  return r
end

function Reader:peek_u8()
  return self.pos < self.len and self.tvb:range(self.pos, 1):uint() or nil
end

function Reader:fail(text) error({ bad = text }, 0) end

-- A non-fatal finding on the current message.
function Reader:flag(ex, text) if self.tree then self.tree:add_proto_expert_info(ex, text) end end

function Reader:field(field, n)
  local r = self:take(n)
  if self.tree then self.tree:add_le(field, r) end
  return r
end

function Reader:u8(field) return self:field(field, 1):uint() end
function Reader:u16(field) return self:field(field, 2):le_uint() end
function Reader:u32(field) return self:field(field, 4):le_uint() end
function Reader:i32(field) return self:field(field, 4):le_int() end
function Reader:u64(field) return self:field(field, 8):le_uint64() end
function Reader:f64(field) return self:field(field, 8):le_float() end

-- u32 count, then the bytes. Returns the count, the count's range and the bytes' range.
function Reader:counted(cap, what)
  local start = self.pos
  local lr = self:take(4)
  local n = lr:le_uint()
  if n > cap then
    self:fail(string.format("%s of %d bytes exceeds the limit of %d", what, n, cap))
  end
  return n, lr, self:take(n), start
end

function Reader:string(field, cap, what)
  local n, lr, r, start = self:counted(cap, what)
  local s = r and r:string(ENC_UTF_8) or ""
  local item
  if self.tree then
    item = self.tree:add(field, self.tvb:range(start, 4 + n), s)
    item:add_le(f.length, lr)
  end
  return s, item, n
end

function Reader:block(label)
  local n, lr, r = self:counted(BLOCK_CAP, label)
  if self.tree then
    self.tree:add_le(f.data_len, lr):set_text(string.format("%s: %d bytes", label, n))
    if r then self.tree:add(f.data, r) end
  end
  return n
end

function Reader:id(fs)
  local r = self:take(16)
  local text = id_text(r)
  if self.tree then
    local item = self.tree:add(fs.text, r, text)
    if text == "" then item:append_text("(null)") end
    item:add_le(fs.w0, r:range(0, 8))
    item:add_le(fs.w1, r:range(8, 8))
  end
  return text ~= "" and text or "null"
end

function Reader:module()
  local r = self:take(16)
  local text = module_text(r:range(0, 8):le_uint64(), r:range(8, 8):le_uint64())
  if self.tree then
    local item = self.tree:add(f.module, r, text)
    item:add_le(f.module_prefix, r:range(0, 8))
    item:add_le(f.module_name, r:range(8, 8))
  end
  return text ~= "" and text or "(none)"
end

-- Components of width 4 or 8 under one summary item.
function Reader:vector(fs, names, width)
  local r = self:take(#names * width)
  local values = {}
  for i = 1, #names do values[i] = num(r:range((i - 1) * width, width):le_float()) end
  local summary = "(" .. table.concat(values, ", ") .. ")"
  if self.tree then
    local item = self.tree:add(r, fs.label .. ": " .. summary)
    for i, n in ipairs(names) do item:add_le(fs[n], r:range((i - 1) * width, width)) end
  end
  return summary
end
function Reader:vec3(fs) return self:vector(fs, { "x", "y", "z" }, 8) end
function Reader:quat(fs, width) return self:vector(fs, { "w", "x", "y", "z" }, width) end

-- Runs `fn` with the items going under `item`.
function Reader:under(item, fn)
  local saved = self.tree
  if saved then self.tree = item end
  local result = fn()
  self.tree = saved
  return result
end

-- Messages ----------------------------------------------------------------------------
-- Each decoder reads one message whose code byte has been read and returns its summary.

local server_tcp = {}
server_tcp[0x40] = function(r)
  local id = r:id(ENTITY)
  local module = r:module()
  local text = r:string(f.interface, BLOCK_CAP, "Interface text")
  local parent = r:id(PARENT)
  local pos = r:vec3(POSITION)
  r:quat(ORIENTATION, 8)
  r:u8(f.smooth)
  r:u8(f.force_snap)
  r:block("Interface data")
  return string.format("Entity create id=%s module=%s text=%s parent=%s pos=%s", id, module,
    text, parent, pos)
end
server_tcp[0x41] = function(r) return "Entity destroy id=" .. r:id(ENTITY) end
server_tcp[0x42] = function(r)
  local id = r:id(ENTITY)
  r:id(SECOND)
  local pos = r:vec3(POSITION)
  r:quat(ORIENTATION, 8)
  r:u8(f.smooth)
  r:u8(f.force_snap)
  local n = r:block("Interface data")
  return string.format("Entity update id=%s pos=%s data=%d bytes", id, pos, n)
end
server_tcp[0x46] = function(r)
  local id = r:id(ENTITY)
  r:u8(f.smooth) -- before the position, unlike create and update
  local pos = r:vec3(POSITION)
  r:quat(ORIENTATION, 8)
  return string.format("Entity move id=%s pos=%s", id, pos)
end
server_tcp[0x04] = function(r) return "World " .. r:string(f.world, BLOCK_CAP, "World name") end
server_tcp[0x05] = function(r)
  local privilege = r:string(f.privilege, BLOCK_CAP, "Privilege text")
  return string.format("Admin status %s admin=%d", privilege, r:u8(f.admin))
end
-- ModuleID and payload, as in module messages and module records.
local function module_payload(r)
  local module = r:module()
  return string.format("%s %d bytes", module, r:block("Payload"))
end
local function module_message(r) return "Module message " .. module_payload(r) end
server_tcp[0x7F] = module_message
server_tcp[0x02] = function() return "Disconnect" end

local client_tcp = {
  [0x03] = function() return "Keep-alive" end,
  [0x02] = function() return "Disconnect" end,
  [0x43] = function(r)
    local id = r:id(ENTITY)
    return string.format("Entity action id=%s %d bytes", id, r:block("Action"))
  end,
  [0x7F] = module_message,
  -- The hello's password when it came in a segment of its own (the client never splits it).
  [0x06] = function(r)
    r:string(f.password, PASSWORD_CAP, "Password")
    return "Password"
  end,
}

local function hello(r)
  r:u8(f.lead)
  local magic = r:field(f.magic, 8):string()
  if magic ~= MAGIC then
    r:flag(e_malformed, "Wrong magic: the server refuses a non-game client")
  end
  local version = r:u32(f.hello_version)
  if version ~= 1 then r:flag(e_malformed, "Unsupported hello version " .. version) end
  local token = r:string(f.token, TOKEN_CAP, "Token")
  local info = string.format("Hello token=%q", token)
  -- The marker leaves in the same flush as the token; 0x06 starts no other message.
  if r:peek_u8() == 0x06 then
    r:u8(f.marker)
    r:string(f.password, PASSWORD_CAP, "Password")
    info = info .. " with password"
  end
  return info
end

local function reply(r)
  local status = r:u8(f.status)
  if status ~= 1 then return "Refusal: " .. r:string(f.reason, TEXT_CAP, "Refusal reason") end
  local version = r:u16(f.version)
  if version ~= 1 then r:flag(e_malformed, "Networking version mismatch") end
  r:u16(f.tag)
  local player = r:u64(f.player)
  local user = r:string(f.username, BLOCK_CAP, "User name")
  local mods, list_bytes = {}, 0
  while true do
    local m, item, n = r:string(f.mod, TEXT_CAP, "Mod name")
    if m == "" then
      if item then item:set_text("End of mods") end
      break
    end
    mods[#mods + 1] = m
    -- The client bounds the whole list (names and their counts) like a block.
    list_bytes = list_bytes + 4 + n
    if list_bytes > BLOCK_CAP then
      r:fail("Mod list exceeds the limit of " .. BLOCK_CAP .. " bytes")
    end
  end
  r:i32(f.mode)
  local n, lr, cr, start = r:counted(BLOCK_CAP, "Configuration text")
  if r.tree then
    local text = cr and cr:string(ENC_UTF_8):gsub("%z$", "") or ""
    r.tree:add(f.config, r.tvb:range(start, 4 + n), text):add_le(f.length, lr)
  end
  return string.format("Welcome player=%s user=%s mods=%s", tostring(player), user,
    table.concat(mods, ","))
end

-- TCP ---------------------------------------------------------------------------------

local function title(to_server)
  return "Orvex, " .. (to_server and "client to server" or "server to client")
end

-- Where the server's first message of each connection was found, decided on the first
-- pass (frames in order) and looked up on later ones, which may visit frames in any order.
-- A frame may hand over a reassembled message and then the rest of its segment, so a place
-- is the frame number and the offset within the tvb's source (tvb:offset() tells the two
-- calls apart). Field extractors such as tcp.stream return nothing in tshark's tree-less
-- first pass, so a connection is keyed by its addresses and ports; a hello starts it anew.
local started, replies = {}, {}
-- Server endpoints ("address:port") learned from hellos, the newest sequence per
-- conversation and kind, and each frame's sequence note: all from frames in order.
local servers, newest, sequence_notes = {}, {}, {}

function orvex.init()
  started, replies, servers, newest, sequence_notes = {}, {}, {}, {}, {}
end

local function endpoint(addr, port) return tostring(addr) .. ":" .. port end
local function src_endpoint(pinfo) return endpoint(pinfo.src, pinfo.src_port) end
local function dst_endpoint(pinfo) return endpoint(pinfo.dst, pinfo.dst_port) end

local function opens_with_hello(tvb)
  return tvb:len() >= 9 and tvb:range(0, 1):uint() == 0x07 and tvb:range(1, 8):string() == MAGIC
end
local function opens_with_magic(tvb) return tvb:len() >= 8 and tvb:range(0, 8):string() == MAGIC end

-- Whether a packet goes to the server. A hello does, and marks its destination as a server;
-- then traffic to a server endpoint does and traffic from one does not. A datagram that
-- opens with the magic comes from the server. Otherwise the port preference decides.
local function toward_server(tvb, pinfo)
  local src, dst = src_endpoint(pinfo), dst_endpoint(pinfo)
  if pinfo.port_type == PT_TCP and opens_with_hello(tvb) then
    servers[dst] = true
    return true
  end
  if servers[dst] and not servers[src] then return true end
  if servers[src] and not servers[dst] then return false end
  if pinfo.port_type == PT_UDP and opens_with_magic(tvb) then return false end
  local port = orvex.prefs.port
  return pinfo.dst_port == port and pinfo.src_port ~= port
end

local function connection(pinfo, to_server)
  local client = to_server and tostring(pinfo.src) .. ":" .. pinfo.src_port
    or tostring(pinfo.dst) .. ":" .. pinfo.dst_port
  local server = to_server and tostring(pinfo.dst) .. ":" .. pinfo.dst_port
    or tostring(pinfo.src) .. ":" .. pinfo.src_port
  return client .. "-" .. server
end

local function place(tvb, pinfo, offset) return pinfo.number .. ":" .. (tvb:offset() + offset) end

local function tcp_decoder(tvb, pinfo, offset, to_server)
  local code = tvb:range(offset, 1):uint()
  if to_server then
    if code == 0x07 then return hello, "Hello" end
    local fn = client_tcp[code]
    if fn then return function(r) r:u8(f.code) return fn(r) end, CODES[code] end
    return nil, string.format("Unknown client code 0x%02X: the server drops the client", code)
  end
  local first
  if pinfo.visited then
    first = replies[place(tvb, pinfo, offset)] ~= nil
  else
    first = not started[connection(pinfo, to_server)]
  end
  if first and (code == 1 or not SERVER_TCP_CODES[code]) then
    return reply, code == 1 and "Welcome" or "Refusal", true
  end
  local fn = server_tcp[code]
  if fn then return function(r) r:u8(f.code) return fn(r) end, CODES[code], first end
  return nil, nil, first
end

local function dissect_tcp(tvb, pinfo, root, to_server)
  local offset, len, infos = 0, tvb:len(), {}
  -- Added on the first message, so a segment that only starts one shows no empty item.
  local top_item
  local function top()
    top_item = top_item or root:add(orvex, tvb(), title(to_server))
    return top_item
  end
  while offset < len do
    local decode, name, first = tcp_decoder(tvb, pinfo, offset, to_server)
    -- Recorded once the message is whole (a message still waiting for bytes is not placed).
    local function placed()
      if pinfo.visited then return end
      if to_server and decode == hello then
        started[connection(pinfo, to_server)] = nil
      elseif first then
        started[connection(pinfo, to_server)] = true
        replies[place(tvb, pinfo, offset)] = true
      end
    end
    if not decode then
      placed()
      local item = top():add(tvb:range(offset, 1), "Unknown code")
      if to_server then
        item:add_proto_expert_info(e_malformed, name)
        infos[#infos + 1] = "[Malformed: " .. name .. "]"
        break
      end
      -- The client skips an unknown code and reads the next byte as a code.
      item:add_proto_expert_info(e_unknown, string.format(
        "Unknown server code 0x%02X: the client skips the byte", tvb:range(offset, 1):uint()))
      offset = offset + 1
    else
      local dry = reader(tvb, offset, nil)
      local ok, err = pcall(decode, dry)
      if not ok and type(err) == "table" and err.more and tvb:reported_len() > len then
        top():add(tvb:range(offset), name):add_proto_expert_info(e_note,
          "Cut short by the capture's snapshot length")
        break
      end
      if not ok and type(err) == "table" and err.more then
        -- err.more is a lower bound (later counts are unread): take the whole next segment.
        pinfo.desegment_offset = offset
        pinfo.desegment_len = DESEGMENT_ONE_MORE_SEGMENT
        break
      end
      placed()
      local size = ok and dry.pos - offset or len - offset
      local item = top():add(tvb:range(offset, size), name)
      local r = reader(tvb, offset, item)
      local ok2, result = pcall(decode, r)
      if ok2 then
        item:set_text(result)
        infos[#infos + 1] = result
        offset = r.pos
      else
        local text = type(result) == "table" and result.bad
          or ("Dissector error: " .. tostring(result))
        item:add_proto_expert_info(e_malformed, text)
        infos[#infos + 1] = name .. " [Malformed: " .. text .. "]"
        break
      end
    end
  end
  return infos
end

-- Datagrams ---------------------------------------------------------------------------

local function records(r, top, is_transform)
  local count = 0
  while true do
    r.context = "before the end marker"
    if r:left() < 16 then r:take(16) end -- raises: no id, no end marker
    if id_text(r.tvb:range(r.pos, 16)) == "" then
      r:id(END_MARKER)
      break
    end
    count = count + 1
    r.context = "inside record " .. count
    local size = is_transform and 56 or 64
    local item = top:add(r.tvb:range(r.pos, math.min(size, r:left())),
      (is_transform and "Transform record " or "Physics record ") .. count)
    local summary = r:under(item, function()
      local id = r:id(ENTITY)
      if is_transform then
        return id .. " pos=" .. r:vec3(POSITION) .. " orientation=" .. r:quat(ORIENTATION32, 4)
      end
      return id .. " velocity=" .. r:vec3(VELOCITY) .. " second=" .. r:vec3(VECTOR2)
    end)
    item:append_text(": " .. summary)
  end
  if r.tree then top:add(f.records, count):set_generated() end
  return count
end

local function server_datagram(r, top)
  r.context = "in the magic"
  if r.len < 8 then r:fail("Shorter than 8 bytes: the client drops it") end
  if r:field(f.magic, 8):string() ~= MAGIC then r:fail("Wrong magic: the client drops it") end
  r.context = "before the code"
  local code = r:u8(f.code)
  if code == 0x44 or code == 0x45 then
    r.context = "inside the header"
    local time = r:f64(f.time)
    local seq = r:u64(f.sequence)
    r:u64(f.parent_env)
    r:u64(f.relative_env)
    local parent = code == 0x44 and r:id(PARENT) or nil
    local divisor = r:i32(f.divisor)
    local n = records(r, top, code == 0x44)
    return string.format("%s seq=%s time=%s%s records=%d", CODES[code], tostring(seq), num(time),
      parent and " parent=" .. parent or "", n), code, seq, divisor
  elseif code == 0x7F then
    r.context = "inside the module datagram"
    return "Module datagram " .. module_payload(r)
  end
  top:add_proto_expert_info(e_unknown, string.format("Unknown datagram code 0x%02X", code))
  return string.format("Unknown datagram code 0x%02X", code)
end

local function client_datagram(r, top)
  r.context = "inside the 13-byte header"
  if r.len < 13 then r:fail("Shorter than the 13-byte header: the server drops it") end
  if r:u8(f.lead) ~= 0x07 then
    r:flag(e_malformed, "Lead byte is not 0x07: the server drops it")
  end
  r:u16(f.version)
  r:u16(f.tag)
  local player = r:u64(f.player)
  if r:left() == 0 then r:fail("No message after the header: the server drops it") end
  local parts = {}
  while r:left() > 0 do
    local code, start = r:peek_u8(), r.pos
    local item = top:add(r.tvb:range(r.pos, 1), CODES[code] or "Unknown code")
    r.context = "inside a module record"
    local summary = r:under(item, function()
      r:u8(f.code)
      if code == 0x03 then return "Keep-alive" end
      if code == 0x7F then return "Module record " .. module_payload(r) end
      r:fail(string.format("Unknown code 0x%02X: the server drops the datagram", code))
    end)
    item:set_len(r.pos - start)
    item:set_text(summary)
    parts[#parts + 1] = summary
  end
  return string.format("Client datagram player=%s: %s", tostring(player), table.concat(parts, ", "))
end

-- Protocol ----------------------------------------------------------------------------

-- The client's sequence rule, for state datagrams with divisor 1: below the newest of its
-- kind is stale and dropped; equal is applied (the rest of a tick, or a duplicate).
local function sequence_note(pinfo, code, seq, divisor)
  if pinfo.visited then return sequence_notes[pinfo.number] end
  if divisor ~= 1 then return nil end
  local key = src_endpoint(pinfo) .. ">" .. dst_endpoint(pinfo) .. "/" .. code
  local last, note = newest[key], nil
  if last and seq < last then
    note = { e_stale, "Sequence below the newest (" .. tostring(last) .. "): the client drops it as stale" }
  elseif last and seq == last then
    note = { e_repeated, "Same sequence as the newest: the client applies it" }
  end
  if not last or seq > last then newest[key] = seq end
  sequence_notes[pinfo.number] = note
  return note
end

function orvex.dissector(tvb, pinfo, tree)
  if pinfo.port_type ~= PT_TCP and pinfo.port_type ~= PT_UDP then return 0 end
  local to_server = toward_server(tvb, pinfo)
  pinfo.cols.protocol:set("ORVEX")
  local infos
  if pinfo.port_type == PT_TCP then
    infos = dissect_tcp(tvb, pinfo, tree, to_server)
  else
    local top = tree:add(orvex, tvb(), title(to_server))
    local r = reader(tvb, 0, top)
    local ok, result, code, seq, divisor = pcall(to_server and client_datagram or server_datagram, r, top)
    if ok then
      infos = { result }
      local note = seq and sequence_note(pinfo, code, seq, divisor)
      if note then
        top:add_proto_expert_info(note[1], note[2])
        infos[1] = result .. " [" .. note[2] .. "]"
      end
    else
      local text
      if type(result) == "table" and result.more and tvb:reported_len() > tvb:len() then
        text = "Cut short by the capture's snapshot length"
      elseif type(result) == "table" and result.more then
        text = string.format("Truncated: the datagram ends %s (%d bytes missing)", r.context,
          result.more)
      elseif type(result) == "table" and result.bad then
        text = result.bad
      else
        text = "Dissector error: " .. tostring(result)
      end
      top:add_proto_expert_info(e_malformed, text)
      infos = { "[Malformed: " .. text .. "]" }
    end
    if ok and r:left() > 0 then
      top:add(f.trailing, tvb:range(r.pos)):add_proto_expert_info(e_note,
        "Bytes after the message, ignored by the receiver")
    end
  end
  -- A frame may call twice (a reassembled message, then the rest of its segment); TCP
  -- fences the first call's text, so the second one continues it.
  if #infos > 0 then
    local info = pinfo.cols.info
    info:clear()
    local text = table.concat(infos, "; ")
    if tostring(info) ~= "" then info:append("; " .. text) else info:set(text) end
  end
  return tvb:len()
end

local registered
local function register_port()
  local tcp, udp = DissectorTable.get("tcp.port"), DissectorTable.get("udp.port")
  if registered then
    tcp:remove(registered, orvex)
    udp:remove(registered, orvex)
  end
  registered = orvex.prefs.port
  tcp:add(registered, orvex)
  udp:add(registered, orvex)
end

function orvex.prefs_changed()
  if registered ~= orvex.prefs.port then register_port() end
end

register_port()

-- Any other port: a TCP stream is taken when it opens with the hello or belongs to a server
-- endpoint seen before, and then stays with this dissector; a datagram when it opens with
-- the magic or goes to or comes from a server endpoint.
local function heuristic(tvb, pinfo, tree)
  local known = servers[src_endpoint(pinfo)] or servers[dst_endpoint(pinfo)]
  local opens = pinfo.port_type == PT_TCP and opens_with_hello(tvb) or
    pinfo.port_type == PT_UDP and opens_with_magic(tvb)
  if not known and not opens then return false end
  pinfo.conversation = orvex
  orvex.dissector(tvb, pinfo, tree)
  return true
end
orvex:register_heuristic("tcp", heuristic)
orvex:register_heuristic("udp", heuristic)
