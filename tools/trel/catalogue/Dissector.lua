-- Dissector of the Trel link for Wireshark and tshark: connections (TCP) and discovery (UDP).
-- Written by "trel commands --dissector" from the catalogue of the library: change that or its template, not this file.

local MAGIC = 0x5452454c -- "TREL"
local HELLO_SIZE, HEADER_SIZE, TAG_SIZE, MAX_PAYLOAD = 32, 20, 16, 16384
local CURRENT, LEGACY = 4, 3 -- protocol major versions; each has a numbering of its own
local REPLY, ERROR_REPLY, TAG, REPLY_WANTED = 1, 2, 4, 8

local SYSTEM_TYPES = { [0] = "None", "Master", "Satellite" }
local ERRORS = {
@ERRORS@}

-- A payload is a list of fields in wire order. What a field may have beside name, kind and width in bytes: "since", the
-- least payload revision that carries it; "major", the only protocol version that does; "values", the names of an
-- enumeration; "entry", the fields of a list's entries; "meaning".

local ENGINE_COMMANDS = {
  {
    name = "AuthenticationChallenge",
    current = 4,
    legacy = -6,
    command = { { name = "Proof", kind = "bytes", width = 32, meaning = "the initiator's HMAC over both hellos" } },
    reply = { { name = "Proof", kind = "bytes", width = 32, meaning = "the acceptor's HMAC over both hellos" } },
  },
}

local DISCOVERY = {
  name = "discovery",
  command = {
    { name = "Nonce", kind = "bytes", width = 16, meaning = "ties the replies to the query" },
    { name = "Padding", kind = "bytes", width = 277, meaning = "makes the query as long as its reply" },
  },
  reply = {
    { name = "SystemName", kind = "string", width = 30 },
    { name = "HostName", kind = "string", width = 256 },
    { name = "SystemType", kind = "i32", width = 4, values = SYSTEM_TYPES },
    { name = "MajorVersion", kind = "u8", width = 1 },
    { name = "MinorVersion", kind = "u8", width = 1 },
    { name = "Available", kind = "bool", width = 1, meaning = "a satellite may be linked, a master has room" },
  },
}

local COMMANDS = {
@COMMANDS@}

-- Fields ---------------------------------------------------------------------------------------------------------------

-- Later versions of Wireshark know another protocol named "trel"; the fields below keep clear of its fields.
local link = Proto("trel_link", "Trel link")
local discovery = Proto("trel_discovery", "Trel discovery")

local fields = {} -- by filter name

local function add_field(kind, name, ...)
  fields["trel." .. name] = ProtoField[kind]("trel." .. name, ...)
end

add_field("uint8", "hello.version", "Version of the hello")
add_field("uint8", "hello.major", "Protocol major version")
add_field("uint8", "hello.flags", "Flags", base.HEX)
add_field("bool", "hello.flags.authentication", "Authentication required", 8, nil, 0x01)
add_field("uint64", "hello.instance", "Instance", base.HEX, nil, nil, "random number of the running engine")
add_field("bytes", "hello.nonce", "Nonce")

add_field("uint16", "header.length", "Data length", base.DEC, nil, nil, "bytes of the payload")
add_field("uint8", "header.major", "Protocol major version", base.DEC,
  { [CURRENT] = "current numbering", [LEGACY] = "legacy numbering" })
add_field("uint8", "header.minor", "Protocol minor version")
add_field("uint8", "header.revision", "Payload revision")
add_field("uint8", "header.flags", "Flags", base.HEX)
add_field("bool", "header.flags.reply", "Reply", 8, nil, REPLY)
add_field("bool", "header.flags.error", "Error reply", 8, nil, ERROR_REPLY)
add_field("bool", "header.flags.tag", "Tag follows", 8, nil, TAG)
add_field("bool", "header.flags.reply_wanted", "Reply wanted", 8, nil, REPLY_WANTED)
add_field("uint8", "header.sender_type", "Sender's system type", base.DEC, SYSTEM_TYPES)
add_field("uint8", "header.receiver_type", "Receiver's system type", base.DEC, SYSTEM_TYPES, nil,
  "as the sender knows it")
add_field("int32", "header.type", "Command type")
add_field("uint32", "header.serial", "Serial number", base.DEC, nil, nil, "a reply carries its command's")
add_field("uint16", "header.checksum", "Checksum", base.HEX)
add_field("uint16", "header.error", "Error", base.DEC, ERRORS)

add_field("string", "command", "Command")
add_field("bytes", "payload", "Payload")
add_field("bytes", "left_over", "Left over", base.NONE, "what a receiver does not read")
add_field("bytes", "tag", "Tag", base.NONE, "truncated HMAC over the frame and its number")
add_field("framenum", "response_in", "Reply in", base.NONE, frametype.RESPONSE)
add_field("framenum", "response_to", "Reply to", base.NONE, frametype.REQUEST)
add_field("relative_time", "response_time", "Time from command to reply")

local KINDS = {
  i64 = { "int64", base.DEC },
  i32 = { "int32", base.DEC },
  u32 = { "uint32", base.DEC },
  u8 = { "uint8", base.DEC },
  bool = { "bool", base.NONE },
  port = { "uint16", base.DEC },
  list = { "int32", base.DEC },
}

local function add_payload_field(prefix, field)
  local name = prefix .. "." .. field.name
  if fields["trel." .. name] then
    return -- of the command, and of the reply too
  end
  local kind = KINDS[field.kind]
  if kind then
    add_field(kind[1], name, field.name, kind[2], field.values, nil, field.meaning)
  elseif field.kind == "bytes" then
    add_field("bytes", name, field.name, base.NONE, field.meaning)
  elseif field.kind == "string" then
    add_field("string", name, field.name, base.UNICODE, field.meaning)
  else
    add_field(field.kind, name, field.name, base.NONE, field.meaning)
  end
  for _, part in ipairs(field.entry or {}) do
    add_payload_field(name, part)
  end
end

local commands_by_type = { [CURRENT] = {}, [LEGACY] = {} }

local function add_command(command)
  for _, payload in ipairs({ command.command, command.reply }) do
    for _, field in ipairs(payload) do
      add_payload_field(command.name, field)
    end
  end
  if command.current then
    commands_by_type[CURRENT][command.current] = command
    commands_by_type[LEGACY][command.legacy] = command
  end
end

add_command(DISCOVERY)
for _, list in ipairs({ ENGINE_COMMANDS, COMMANDS }) do
  for _, command in ipairs(list) do
    add_command(command)
  end
end

link.fields = fields

-- Notes ----------------------------------------------------------------------------------------------------------------

local notes = {}

local function add_note(name, text, group, severity)
  notes[name] = ProtoExpert.new("trel.note." .. name, text, group, severity)
end

add_note("version", "Unknown protocol version: the receiver ends the connection", expert.group.MALFORMED,
  expert.severity.ERROR)
add_note("flags", "Unknown flag: the receiver ends the connection", expert.group.MALFORMED, expert.severity.ERROR)
add_note("length", "Too long: the receiver ends the connection", expert.group.MALFORMED, expert.severity.ERROR)
add_note("checksum", "Wrong checksum: the receiver ends the connection", expert.group.CHECKSUM, expert.severity.ERROR)
add_note("short", "Payload too short: the receiver drops the command", expert.group.MALFORMED, expert.severity.ERROR)
add_note("hello", "No hello that a receiver accepts", expert.group.MALFORMED, expert.severity.ERROR)
add_note("datagram", "The datagram is not as long as its frame", expert.group.MALFORMED, expert.severity.ERROR)
add_note("unknown", "Unknown command: the receiver drops it", expert.group.UNDECODED, expert.severity.WARN)
add_note("error", "The command failed", expert.group.RESPONSE_CODE, expert.severity.NOTE)
add_note("left_over", "Bytes left over", expert.group.COMMENTS_GROUP, expert.severity.CHAT)
add_note("cut", "Not all of it was captured", expert.group.UNDECODED, expert.severity.WARN)

link.experts = notes

-- Payloads -------------------------------------------------------------------------------------------------------------

-- Texts are padded with zeros.
local function text_of(range)
  local zero = string.find(range:raw(), "\0", 1, true)
  if zero == 1 then
    return ""
  end
  return (zero and range:range(0, zero - 1) or range):string(ENC_UTF_8)
end

local function width_of(payload)
  local width = 0
  for _, field in ipairs(payload) do
    width = width + field.width
  end
  return width
end

-- Adds the fields of a payload that stands from offset to stop; returns where they end, nil when they do not fit.
local function dissect_payload(payload, prefix, header, tvb, offset, stop, tree)
  local begin = offset
  for _, field in ipairs(payload) do
    if (field.major or header.major) == header.major and (field.since or 0) <= header.revision then
      local name = prefix .. "." .. field.name
      local width = field.kind == "list" and 4 or field.width
      local entry_width = field.entry and width_of(field.entry)
      local fits = offset + width <= stop
      local count = 0
      if fits and field.entry then
        count = tvb(offset, 4):int()
        fits = count >= 0 and count * entry_width <= stop - offset - 4
      end
      if not fits then
        tree:add_proto_expert_info(notes.short, string.format("%s (%s) does not fit at offset %d of %d bytes",
          field.name, field.kind == "list" and "list" or field.width .. " bytes", offset - begin, stop - begin))
        return nil
      end
      local range = tvb(offset, width)
      if field.kind == "ipv4" or field.kind == "port" then
        tree:add_le(fields[name], range)
      elseif field.kind == "string" then
        tree:add(fields[name], range, text_of(range))
      else
        tree:add(fields[name], range)
      end
      offset = offset + width
      for index = 0, count - 1 do
        local entry = tree:add(link, tvb(offset, entry_width), string.format("%s[%d]", field.name, index))
        offset = dissect_payload(field.entry, name, header, tvb, offset, offset + entry_width, entry)
      end
    end
  end
  return offset
end

-- Replies and their commands -------------------------------------------------------------------------------------------

local open_calls = {} -- by sender, receiver and serial; while the capture is read for the first time
local calls = {} -- by the packets of command and reply

function link.init()
  open_calls, calls = {}, {}
end

-- A query for discovery goes to everybody, and each answers from an address of its own.
local function call_key(pinfo, header, proto)
  local from = string.format("%s:%d", tostring(pinfo.src), pinfo.src_port)
  local to = string.format("%s:%d", tostring(pinfo.dst), pinfo.dst_port)
  if header.is_reply then
    from, to = to, from
  end
  return string.format("%s %s %d", from, proto == discovery and "discovery" or to, header.serial)
end

local function match_reply(pinfo, header, proto, tree)
  local key = call_key(pinfo, header, proto)
  local place = pinfo.number .. " " .. key
  if header.is_reply then
    local call = calls[place]
    if not call and not pinfo.visited then
      call = open_calls[key]
      if call then
        call.reply = call.reply or pinfo.number
        calls[place] = call
      end
    end
    if call then
      local seconds = pinfo.rel_ts - call.time
      local whole = math.floor(seconds)
      tree:add(fields["trel.response_to"], call.command):set_generated()
      tree:add(fields["trel.response_time"], NSTime.new(whole, math.floor((seconds - whole) * 1e9 + 0.5)))
        :set_generated()
    end
  elseif header.reply_wanted then
    if not pinfo.visited then
      open_calls[key] = { command = pinfo.number, time = pinfo.rel_ts }
      calls[place] = open_calls[key]
    end
    if calls[place] and calls[place].reply then
      tree:add(fields["trel.response_in"], calls[place].reply):set_generated()
    end
  end
end

-- Frames ---------------------------------------------------------------------------------------------------------------

local function has(flags, flag)
  return flags % (2 * flag) >= flag
end

local function checksum_of(tvb, length)
  local bytes = tvb:raw(0, HEADER_SIZE + length)
  local sum = 0
  for position = 1, #bytes, 2 do
    if position ~= 17 then -- the checksum itself
      local high, low = string.byte(bytes, position, position + 1)
      sum = sum + high * 256 + (low or 0)
    end
  end
  while sum > 0xffff do
    sum = sum % 0x10000 + math.floor(sum / 0x10000)
  end
  return 0xffff - sum
end

local function frame_size(length, flags)
  return HEADER_SIZE + length + (has(flags, TAG) and TAG_SIZE or 0)
end

local function name_of(header, command)
  if header.type == 0 then
    local is_probe = header.reply_wanted or header.is_reply
    return is_probe and "Probe" or "Heartbeat"
  end
  return command and command.name or string.format("Command %d", header.type)
end

local function add_info(pinfo, text)
  pinfo.cols.info:append("[" .. text .. "] ")
  pinfo.cols.info:fence()
end

local function add_header(tvb, tree)
  local header = {
    length = tvb(0, 2):uint(),
    major = tvb(2, 1):uint(),
    revision = tvb(4, 1):uint(),
    flags = tvb(5, 1):uint(),
    type = tvb(8, 4):int(),
    serial = tvb(12, 4):uint(),
    checksum = tvb(16, 2):uint(),
    error = tvb(18, 2):uint(),
  }
  header.is_error = has(header.flags, ERROR_REPLY)
  header.is_reply = has(header.flags, REPLY) or header.is_error
  header.reply_wanted = has(header.flags, REPLY_WANTED)

  local items = {}
  local subtree = tree:add(link, tvb(0, HEADER_SIZE), "Header")
  local function add(name, offset, size)
    items[name] = subtree:add(fields["trel.header." .. name], tvb(offset, size))
  end
  add("length", 0, 2)
  add("major", 2, 1)
  add("minor", 3, 1)
  add("revision", 4, 1)
  add("flags", 5, 1)
  for _, flag in ipairs({ "reply", "error", "tag", "reply_wanted" }) do
    items.flags:add(fields["trel.header.flags." .. flag], tvb(5, 1))
  end
  add("sender_type", 6, 1)
  add("receiver_type", 7, 1)
  add("type", 8, 4)
  add("serial", 12, 4)
  add("checksum", 16, 2)
  add("error", 18, 2)
  return header, items
end

-- One frame with its tag; "payloads" are those of a command, or what finds them by the header.
local function dissect_frame(tvb, pinfo, tree, proto, payloads)
  local root = tree:add(proto, tvb())
  if tvb:len() < HEADER_SIZE then
    root:add_proto_expert_info(notes.cut)
    return
  end
  local header, items = add_header(tvb, root)
  local known = commands_by_type[header.major]
  local command = known and known[header.type]
  local name = name_of(header, command)
  items.type:append_text(" (" .. name .. ")")
  local title = name
  if header.is_error then
    title = string.format("%s error: %s", name, ERRORS[header.error] or header.error)
  elseif header.is_reply then
    title = name .. " reply"
  end
  root:append_text(": " .. title)
  add_info(pinfo, title)
  root:add(fields["trel.command"], tvb(8, 4), name):set_generated()
  match_reply(pinfo, header, proto, root)

  if not known then
    items.major:add_proto_expert_info(notes.version)
  end
  if header.flags >= 2 * REPLY_WANTED then
    items.flags:add_proto_expert_info(notes.flags)
  end
  if header.length > MAX_PAYLOAD then
    items.length:add_proto_expert_info(notes.length)
    return
  end
  if tvb:len() < frame_size(header.length, header.flags) then
    root:add_proto_expert_info(notes.cut)
    return
  end
  local checksum = checksum_of(tvb, header.length)
  if checksum ~= header.checksum then
    items.checksum:add_proto_expert_info(notes.checksum, string.format("Wrong checksum, should be 0x%04x", checksum))
  else
    items.checksum:append_text(" (correct)")
  end
  if header.is_error then
    items.error:add_proto_expert_info(notes.error, title)
  end

  local stop = HEADER_SIZE + header.length
  payloads = payloads or command
  if payloads and header.type ~= 0 then
    local payload = header.is_error and {} or header.is_reply and payloads.reply or payloads.command
    local subtree = header.length > 0 and root:add(link, tvb(HEADER_SIZE, header.length), "Payload") or root
    local offset = dissect_payload(payload, "trel." .. payloads.name, header, tvb, HEADER_SIZE, stop, subtree)
    if offset and offset < stop then
      subtree:add(fields["trel.left_over"], tvb(offset, stop - offset)):add_proto_expert_info(notes.left_over)
    end
  else
    if header.length > 0 then
      root:add(fields["trel.payload"], tvb(HEADER_SIZE, header.length))
    end
    if header.type ~= 0 and known then
      items.type:add_proto_expert_info(notes.unknown)
    end
  end
  if has(header.flags, TAG) then
    root:add(fields["trel.tag"], tvb(stop, TAG_SIZE))
  end
end

local function dissect_hello(tvb, pinfo, tree)
  local root = tree:add(link, tvb(), "Trel link: Hello")
  add_info(pinfo, "Hello")
  if tvb:len() < HELLO_SIZE then
    root:add_proto_expert_info(notes.cut)
    return
  end
  root:add(fields["trel.hello.version"], tvb(4, 1))
  root:add(fields["trel.hello.major"], tvb(5, 1))
  root:add(fields["trel.hello.flags"], tvb(6, 1)):add(fields["trel.hello.flags.authentication"], tvb(6, 1))
  root:add(fields["trel.hello.instance"], tvb(8, 8))
  root:add(fields["trel.hello.nonce"], tvb(16, 16))
  if tvb(4, 1):uint() ~= 1 or not commands_by_type[tvb(5, 1):uint()] or tvb(6, 1):uint() > 1 or tvb(7, 1):uint() ~= 0
  then
    root:add_proto_expert_info(notes.hello)
  end
end

-- Connections ----------------------------------------------------------------------------------------------------------

-- The first bytes of a hello would be those of a frame that is too long, so the two cannot be taken for each other.
local function is_hello(tvb, offset)
  return tvb:len() - offset >= 4 and tvb(offset, 4):uint() == MAGIC
end

-- Nothing can be found behind a frame that is too long: all the rest belongs to it.
local function pdu_size(tvb, pinfo, offset)
  local length = tvb(offset, 2):uint()
  if is_hello(tvb, offset) then
    return HELLO_SIZE
  elseif length > MAX_PAYLOAD then
    return tvb:len() - offset
  end
  return frame_size(length, tvb(offset + 5, 1):uint())
end

local function dissect_pdu(tvb, pinfo, tree)
  if is_hello(tvb, 0) then
    dissect_hello(tvb, pinfo, tree)
  else
    dissect_frame(tvb, pinfo, tree, link)
  end
  return tvb:len()
end

function link.dissector(tvb, pinfo, tree)
  pinfo.cols.protocol = "Trel"
  pinfo.cols.info:clear()
  dissect_tcp_pdus(tvb, tree, 6, pdu_size, dissect_pdu)
  return tvb:len()
end

function discovery.dissector(tvb, pinfo, tree)
  pinfo.cols.protocol = "Trel"
  pinfo.cols.info:clear()
  dissect_frame(tvb, pinfo, tree, discovery, DISCOVERY)
  if tvb:len() >= HEADER_SIZE and tvb:reported_len() ~= frame_size(tvb(0, 2):uint(), tvb(5, 1):uint()) then
    tree:add_proto_expert_info(notes.datagram)
  end
  return tvb:len()
end

-- Traffic on other ports: a hello, or a whole frame that is sound.
local function is_sound_frame(tvb)
  if tvb:len() < HEADER_SIZE or not commands_by_type[tvb(2, 1):uint()] or tvb(3, 1):uint() ~= 1 then
    return false
  end
  local length, flags = tvb(0, 2):uint(), tvb(5, 1):uint()
  return flags < 2 * REPLY_WANTED and length <= MAX_PAYLOAD and tvb:len() >= HEADER_SIZE + length
    and checksum_of(tvb, length) == tvb(16, 2):uint()
end

link:register_heuristic("tcp", function(tvb, pinfo, tree)
  local is_ours = is_hello(tvb, 0) and tvb:len() >= 6 and tvb(4, 1):uint() == 1 and commands_by_type[tvb(5, 1):uint()]
  if not is_ours and not is_sound_frame(tvb) then
    return false
  end
  pinfo.conversation = link
  link.dissector(tvb, pinfo, tree)
  return true
end)

local DISCOVERY_TYPES = { [CURRENT] = { [2] = true, [3] = true }, [LEGACY] = { [-2] = true, [-3] = true } }

discovery:register_heuristic("udp", function(tvb, pinfo, tree)
  if not is_sound_frame(tvb) or not DISCOVERY_TYPES[tvb(2, 1):uint()][tvb(8, 4):int()] then
    return false
  end
  discovery.dissector(tvb, pinfo, tree)
  return true
end)

local function listen(proto, table_name, default)
  local ports = default
  local dissectors = DissectorTable.get(table_name)
  dissectors:add(ports, proto)
  proto.prefs.ports = Pref.range("Ports", default, "Ports of the link; traffic on others is recognised too", 65535)
  function proto.prefs_changed()
    if ports ~= proto.prefs.ports then
      if ports ~= "" then
        dissectors:remove(ports, proto)
      end
      ports = proto.prefs.ports
      if ports ~= "" then
        dissectors:add(ports, proto)
      end
    end
  end
end

listen(link, "tcp.port", "28282")
listen(discovery, "udp.port", "28283")
