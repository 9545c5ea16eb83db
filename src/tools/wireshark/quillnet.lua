-- quillnet.lua - dissects what managers and Quillnet cards send, for Wireshark and tshark.
--
-- Offsets are those of docs/protocol.md: they count from the destination MAC address, in both
-- arrangements of the header. A dissector gets a frame's bytes after its Ethernet type, which is
-- just before the message in the ordinary arrangement and in the middle of the header in that of
-- the VLAN-tag change mode. The bytes before it come from peek(), which sees every Ethernet frame
-- whole and claims none. peek() also works on a first pass, when fields of other dissectors
-- cannot be read.
--
-- Beside the fields there are notes:
--   - what the receive path of libqnm drops, in the order of its checks and the words of its log;
--   - what a card would find wrong with a request;
--   - which Completion answers which Register Read. Wireshark shows frames in any order, so this is
--     decided when a frame is first seen, and kept by its number.
--
-- It is written for Lua 5.1 to 5.4, whose operators on bits differ, so it uses none.

local quillnet = Proto("quillnet", "Quillnet")

quillnet.prefs.ether_type = Pref.uint("Ethernet type", 0x88B6, "ether_type of qnm.conf, in decimal")
quillnet.prefs.tag_min = Pref.uint("Lowest completion tag", 0, "tag_min of qnm.conf")
quillnet.prefs.tag_max = Pref.uint("Highest completion tag", 255, "tag_max of qnm.conf")

-- ---- Names --------------------------------------------------------------------------------------

local VLAN_TPID = 0x8100
local MESSAGE = 18 -- where it starts
local LEAST_LENGTH = 28 -- of a frame that a manager takes
local VERSION_MR = 1 -- of multi-root cards

local arrangements = {
    [0] = "Ordinary (VLAN tag, Ethernet type)",
    [1] = "VLAN-tag change mode (Ethernet type, VLAN tag)",
}
local hosts = { [0] = "QNSV", [1] = "QNIO" }

-- Registers that the library itself uses. Those of the EEPROM are in one of two places.
local registers = {
    [0x5010] = "EEPROM control and status (1G/10G)",
    [0x5014] = "EEPROM address (1G/10G)",
    [0x5018] = "EEPROM data read (1G/10G)",
    [0x501C] = "EEPROM data to write (1G/10G)",
    [0x0040] = "EEPROM control and status (40G)",
    [0x0044] = "EEPROM address (40G)",
    [0x0048] = "EEPROM data read (40G)",
    [0x004C] = "EEPROM data to write (40G)",
    [0x50F0] = "EEPROM bit lock",
    [0x5200] = "EEPROM ID lock, request and holder",
    [0x5204] = "EEPROM ID lock, release",
    [0x5208] = "EEPROM ID lock, noted requests",
    [0x520C] = "EEPROM lock type",
}

-- ---- Fields -------------------------------------------------------------------------------------

local fields = {}
local little = {} -- fields whose least significant byte comes first
local all_fields = {}

local function field(key, kind, label, ...)
    local made = ProtoField[kind]("quillnet." .. key, label, ...)
    all_fields[#all_fields + 1] = made
    return made
end

local function define(key, ...)
    fields[key] = field(key, ...)
end

local function define_little(key, ...)
    define(key, ...)
    little[fields[key]] = true
end

define("vlan_mode", "uint8", "Header arrangement", base.DEC, arrangements)
define("type", "uint16", "Ethernet type", base.HEX)
define("tpid", "uint16", "TPID", base.HEX)
define("tci", "uint16", "TCI", base.HEX)
define("priority", "uint16", "Priority", base.DEC, nil, 0xE000)
define("cfi", "bool", "CFI", 16, nil, 0x1000)
define("vlan_id", "uint16", "VLAN ID (group)", base.DEC, nil, 0x0FFF)

define("flowid_da", "uint8", "Destination flow ID", base.HEX)
define("flowid_sa", "uint8", "Source flow ID", base.HEX)
define("ver", "uint8", "Format version", base.DEC)
define("info", "uint8", "Information", base.HEX)

define("card_id", "ether", "Card ID")
define("path", "uint8", "Path of the card", base.DEC)
define("host", "uint8", "Kind of card", base.DEC, hosts)
define("link0_fault", "bool", "Link 0 fault", 8, nil, 0x01)
define("link1_fault", "bool", "Link 1 fault", 8, nil, 0x02)
define("uid_switch", "bool", "UID switch", 8, nil, 0x04)
define("power", "bool", "Power", 8, nil, 0x08)
define("link_status", "uint8", "Link status", base.HEX)
define("sw_status", "bytes", "Switch status")
define("sw_status0", "uint8", "First byte", base.HEX)
define("version", "uint8", "Card version", base.DEC, nil, 0x0F)
define("port0_link", "bool", "Link of port 0", 8, nil, 0x20)
define("port1_link", "bool", "Link of port 1", 8, nil, 0x40)
define("pcie_presence", "bool", "PCIe presence", 8, nil, 0x80)
define("int_vector", "uint8", "Interrupt vector", base.HEX)

-- The same two bits on multi-root cards, which number their links in reverse.
local link0_fault_mr = field("link0_fault", "bool", "Link 0 fault", 8, nil, 0x02)
local link1_fault_mr = field("link1_fault", "bool", "Link 1 fault", 8, nil, 0x01)

define("up_port", "none", "Upstream port")
define("down_port", "none", "Downstream port")
define("down_port.number", "uint8", "Number", base.DEC)
define("down_port.port_status", "bytes", "Port status")
define("down_port.connected", "bool", "QNIO card connected", 8, nil, 0x02)
define("down_port.io_mac", "ether", "MAC address of the QNIO card")
for _, port in ipairs({ "up_port.", "down_port." }) do
    define(port .. "pri_bus_num", "uint8", "Primary bus number", base.DEC)
    define(port .. "sec_bus_num", "uint8", "Secondary bus number", base.DEC)
    define(port .. "sub_bus_num", "uint8", "Subordinate bus number", base.DEC)
    define(port .. "command", "uint8", "Command", base.HEX)
    define_little(port .. "memory_base", "uint16", "Memory base", base.HEX)
    define_little(port .. "memory_limit", "uint16", "Memory limit", base.HEX)
    define_little(port .. "pre_memory_base", "uint16", "Prefetchable memory base", base.HEX)
    define_little(port .. "pre_memory_limit", "uint16", "Prefetchable memory limit", base.HEX)
    define_little(port .. "pre_base_upper", "uint32", "Prefetchable base, upper half", base.HEX)
    define_little(port .. "pre_limit_upper", "uint32", "Prefetchable limit, upper half", base.HEX)
end

define("io_substate", "bytes", "I/O state")
define("connected", "bool", "Connected", 8, nil, 0x02)
define("ser_mac", "ether", "MAC address of the QNSV card")
define_little("device_id", "uint16", "PCI device ID", base.HEX)
define_little("vendor_id", "uint16", "PCI vendor ID", base.HEX)
define_little("class_code", "uint24", "PCI class code", base.HEX)
define("resource_id", "uint16", "Resource ID", base.DEC)

define("tag", "uint8", "Tag", base.DEC)
define_little("data", "uint32", "Register value", base.HEX)
define("wire_address", "uint32", "Encoded address", base.HEX)
define("address", "uint32", "Register address", base.HEX)
define("register", "string", "Register")
define("set_type", "uint8", "Set type", base.DEC)
define("new_vlan_id", "uint16", "New VLAN ID", base.DEC)
define("status", "uint8", "Reset status", base.HEX)
define("page", "uint32", "MMS page", base.DEC)
define("words", "none", "Words")
define_little("word", "uint32", "Word", base.HEX)

define("reserved", "bytes", "Reserved")
define("padding", "bytes", "Padding")
define("unread", "bytes", "Not read")

define("dropped", "string", "Dropped by the receive path")
define("response_in", "framenum", "Answered in", base.NONE, frametype.RESPONSE)
define("response_to", "framenum", "Answers", base.NONE, frametype.REQUEST)
define("response_time", "relative_time", "Time since the Register Read")
define("resend_of", "framenum", "Sent again after", base.NONE, frametype.RETRANS_PREV)
define("first_response_time", "relative_time", "Time since its first sending")

-- ---- Notes --------------------------------------------------------------------------------------

local notes = {}
local all_notes = {}

local function define_note(key, label, group, severity)
    local abbr = "quillnet.expert." .. key
    notes[key] = ProtoExpert.new(abbr, label, expert.group[group], expert.severity[severity])
    all_notes[#all_notes + 1] = notes[key]
end

define_note("too_short", "The frame is too short", "MALFORMED", "WARN")
define_note("priority", "The priority is not 4", "PROTOCOL", "WARN")
define_note("ether_type", "The Ethernet type is another", "PROTOCOL", "WARN")
define_note("tpid", "There is no VLAN tag", "PROTOCOL", "WARN")
define_note("subtype", "Managers do not know the subtype", "PROTOCOL", "WARN")
define_note("for_cards", "Managers take no requests", "PROTOCOL", "CHAT")
define_note("size", "The announcement is cut short", "MALFORMED", "WARN")
define_note("ver", "The card announces itself by 40G frames as well", "PROTOCOL", "NOTE")
define_note("host", "The kind of card is unknown", "PROTOCOL", "WARN")
define_note("tag", "No manager uses the tag", "PROTOCOL", "WARN")
define_note("mac", "Another card was asked", "SEQUENCE", "WARN")
define_note("unasked", "No Register Read waits for this", "SEQUENCE", "NOTE")
define_note("repeated", "The Register Read has its answer", "SEQUENCE", "NOTE")
define_note("resent", "The Register Read is sent again", "SEQUENCE", "NOTE")
define_note("unanswered", "No Completion answers this", "SEQUENCE", "NOTE")
define_note("fault", "No card takes the request", "PROTOCOL", "WARN")
define_note("cut", "The capture holds only the head of the frame", "UNDECODED", "NOTE")

-- ---- A frame ------------------------------------------------------------------------------------

-- The first bytes of the Ethernet frame that is being dissected; of the innermost if frames nest.
local peeked = {}

local function word_at(bytes, at)
    local high, low = string.byte(bytes, at + 1, at + 2)
    return low and high * 256 + low
end

-- Called for every Ethernet frame before its payload; claims none.
local function peek(tvb, pinfo)
    peeked = {
        number = pinfo.number,
        start = tvb:offset(),
        length = tvb:reported_len(),
        bytes = tvb:raw(0, math.min(tvb:len(), MESSAGE)),
    }
    return false
end

-- The header as the receive path sees it: if it is not of one arrangement, it is of the other.
local function read_header(bytes)
    local first, second, third = word_at(bytes, 12), word_at(bytes, 14), word_at(bytes, 16)
    local header = { destination = bytes:sub(1, 6), source = bytes:sub(7, 12) }
    if first == VLAN_TPID then
        header.vlan_mode, header.tpid, header.tci, header.type = 0, first, second, third
    else
        header.vlan_mode, header.type, header.tpid, header.tci = 1, first, second, third
    end
    return header
end

-- The frame around a payload. Bytes are read by their offset from the destination MAC address;
-- `first` is the offset of the payload's first byte.
local function make_frame(tvb, pinfo)
    local frame = { tvb = tvb, is_cut = false }
    local start = tvb:offset() - (peeked.start or 0)
    if peeked.number == pinfo.number and start >= 14 then
        frame.header = read_header(peeked.bytes)
        frame.first = start == 14 and 14 or MESSAGE -- also where more tags than one have moved it
        frame.length = peeked.length
    else -- captured without its Ethernet header, as on the "any" interface
        local is_tag = tvb:len() >= 2 and tvb(0, 2):uint() == VLAN_TPID
        frame.first = is_tag and 14 or MESSAGE
        frame.length = frame.first + tvb:reported_len()
    end
    frame.ends = frame.first + tvb:reported_len()
    frame.captured = frame.first + tvb:len()
    return frame
end

-- Bytes of the frame; nil if it is too short, or if not all of them were captured.
local function range_of(frame, at, size)
    if at >= frame.first and at + size <= frame.captured then
        return frame.tvb(at - frame.first, size)
    end
    if at + size <= frame.ends then frame.is_cut = true end
    return nil
end

local function byte_at(frame, at)
    local range = range_of(frame, at, 1)
    return range and range:uint()
end

-- Adds a field if its bytes are there. Returns the item, to which more can be added, or nil.
local function put(frame, tree, made, at, size)
    local range = range_of(frame, at, size)
    if range == nil then return nil end
    if little[made] then return tree:add_le(made, range) end
    return tree:add(made, range)
end

-- Rows of key, offset and size.
local function put_rows(frame, tree, rows, prefix, start)
    for _, row in ipairs(rows) do
        put(frame, tree, fields[(prefix or "") .. row[1]], (start or 0) + row[2], row[3])
    end
end

local function put_generated(tree, key, value)
    local item = tree:add(fields[key], value)
    item:set_generated()
    return item
end

-- The rest of the frame, from an offset on.
local function put_rest(frame, tree, key, at)
    if frame.ends <= at then return end
    if frame.captured < frame.ends then frame.is_cut = true end
    if frame.captured > at then put(frame, tree, fields[key], at, frame.captured - at) end
end

local function mac_text(bytes)
    return (bytes:gsub(".", function(c) return string.format("%02x:", c:byte()) end):sub(1, -2))
end

local function id_text(bytes)
    return "0x" .. bytes:gsub(".", function(c) return string.format("%02x", c:byte()) end)
end

-- ---- What the receive path drops ----------------------------------------------------------------

-- The minimum length of an announcement. For an unknown kind of card it is that of any frame.
local function announcement_size(message, frame)
    local host, status = byte_at(frame, 23), byte_at(frame, 26)
    if host == 0 then return message.server_size end
    if host ~= 1 or status == nil then return LEAST_LENGTH end
    return status % 16 == VERSION_MR and 46 or 44
end

local function has_priority(tci)
    return math.floor(tci / 0x2000) == 4
end

-- Each returns the key of a note and what the library logs, or nothing for a frame that passes.
-- Bytes that were not captured count as correct.
local function check_length(frame)
    if frame.length < LEAST_LENGTH then
        return "too_short", string.format("Recv size is too short. len=%u", frame.length)
    end
end

local function check_type(frame, mode)
    local header = frame.header
    if header.type and header.type ~= quillnet.prefs.ether_type then
        return "ether_type",
            string.format("Ether type is mismatch.%s type=0x%.4X", mode, header.type)
    end
end

local function check_tpid(frame, mode)
    local header = frame.header
    if header.tpid and header.tpid ~= VLAN_TPID then
        return "tpid", string.format("TPID type is mismatch.%s tpid=0x%.4X", mode, header.tpid)
    end
end

local function check_priority(frame, mode)
    local tci = frame.header.tci
    if tci and not has_priority(tci) then
        local byte = math.floor(tci / 256)
        return "priority", string.format("priority is not 100(bit).%s pri=0x%.2X", mode, byte)
    end
end

local header_checks = {
    [0] = { mode = "", check_priority, check_type },
    [1] = { mode = "(VlanTag change mode)", check_type, check_tpid, check_priority },
}

local function check_header(frame)
    if frame.header == nil then return end
    local checks = header_checks[frame.header.vlan_mode]
    for _, check in ipairs(checks) do
        local note, text = check(frame, checks.mode)
        if note then return note, text end
    end
end

local function check_subtype(frame)
    local message = frame.message
    if frame.subtype and not (message and message.to_manager) then
        return message and "for_cards" or "subtype",
            string.format("Subtype is mismatch. subtype=0x%.2X", frame.subtype)
    end
end

local function check_size(frame)
    if frame.message == nil or frame.message.server_size == nil then return end
    local needed = announcement_size(frame.message, frame)
    if frame.length < needed then
        return "size",
            string.format("Recv size is not enough. subtype=0x%.2X, recv_size=%u, msg_size=%u",
                          frame.subtype, frame.length, needed)
    end
end

local function check_ver(frame)
    local ver = byte_at(frame, 21)
    if frame.message and frame.message.only_version_0 and ver ~= nil and ver ~= 0 then
        return "ver",
            string.format("Drop %s to send from (ver=%u) QN card.", frame.message.name, ver)
    end
end

local function check_host(frame)
    local host = byte_at(frame, 23)
    if frame.message and frame.message.server_size and host and hosts[host] == nil then
        return "host", string.format("Unknwon PEB. host=0x%.2X", host) -- so it stands in the log
    end
end

local checks = { check_length, check_header, check_subtype, check_size, check_ver, check_host }

local function check_frame(frame)
    for _, check in ipairs(checks) do
        local note, text = check(frame)
        if note then return note, text end
    end
end

-- ---- What a card finds wrong with a request -----------------------------------------------------

local function is_zero(frame, at, size)
    local range = size > 0 and range_of(frame, at, size)
    return not range or range:raw() == string.rep("\0", size)
end

local function check_address(frame)
    local range = range_of(frame, 24, 4)
    if range == nil then return end
    local is_used = range:bitfield(0, 6) ~= 0 or range:bitfield(16, 4) ~= 0
    return is_used, "unused address bits are not zero"
end

local function check_reserved(at, size)
    return function(frame) return not is_zero(frame, at, size), "reserved bytes are not zero" end
end

local function check_zero(at, text)
    return function(frame) return not is_zero(frame, at, 1), text end
end

-- Faults that all requests can have; those of single requests are with their messages. Each
-- returns whether there is a fault, and its text.
local request_faults = {
    function(frame) return frame.length < frame.message.frame_size, "the frame is too short" end,
    function(frame)
        local tci = frame.header and frame.header.tci
        return tci and not has_priority(tci), "the priority is not 4"
    end,
    function(frame)
        local tci = frame.header and frame.header.tci
        return tci and math.floor(tci / 0x1000) % 2 == 1, "the CFI bit is set"
    end,
    function(frame)
        local range = range_of(frame, 19, 2)
        return range and range:uint() ~= 0xFFFF, "a flow ID is not 0xFF"
    end,
    function(frame) return not is_zero(frame, 21, 2), "the version or info byte is not 0" end,
    function(frame)
        local size = frame.message.size
        return not is_zero(frame, size, frame.captured - size), "the padding is not zero"
    end,
}

local function note_faults(frame, tree)
    for _, list in ipairs({ request_faults, frame.message.faults }) do
        for _, has_fault in ipairs(list) do
            local found, text = has_fault(frame)
            if found then tree:add_proto_expert_info(notes.fault, text) end
        end
    end
end

-- ---- Which Completion answers which Register Read -----------------------------------------------

-- Each manager has tags of its own, so tags are kept for each manager that was seen. An answer
-- counts only from the MAC address that was asked. The port would count as well, but frames do
-- not name it.
local waiting = {} -- by tag and manager: the Register Read sent last
local reads = {} -- by frame number: a Register Read
local completions = {} -- by frame number: what became of a Completion

function quillnet.init()
    peeked, waiting, reads, completions = {}, {}, {}, {}
end

local function is_resent(earlier, read)
    return earlier ~= nil and earlier.answer == nil and earlier.card == read.card
        and earlier.address == read.address
end

local function remember_read(frame, pinfo, tag, address)
    local read = {
        frame = pinfo.number,
        time = pinfo.rel_ts,
        card = frame.header.destination,
        address = address,
    }
    local by_manager = waiting[tag] or {}
    local earlier = by_manager[frame.header.source]
    if is_resent(earlier, read) then
        read.earlier = earlier
        read.first_time = earlier.first_time or earlier.time
        earlier.is_resent = true
    end
    by_manager[frame.header.source] = read
    waiting[tag] = by_manager
    reads[pinfo.number] = read
end

local function is_for_anybody(address)
    return address:byte(1) % 2 == 1 or address == string.rep("\0", 6)
end

-- The Register Read that a Completion is for. A manager drops Completions for another port than
-- its own; those for a group of hosts, or for none, are for every manager.
local function find_read(header, tag)
    local by_manager = waiting[tag] or {}
    local found = by_manager[header.destination]
    if found ~= nil or not is_for_anybody(header.destination) then return found end
    for _, read in pairs(by_manager) do
        local fits = read.card == header.source and read.answer == nil
        if fits and (found == nil or read.frame > found.frame) then found = read end
    end
    return found
end

local function match_completion(frame, pinfo, tag)
    if tag < quillnet.prefs.tag_min or tag > quillnet.prefs.tag_max then
        return { note = "tag", text = string.format("Invalid tag. tag=%u", tag) }
    end
    local read = find_read(frame.header, tag)
    if read == nil then
        return { note = "unasked", text = "No Register Read with this tag is in the capture." }
    end
    if read.answer ~= nil then
        local text = string.format("The Register Read in frame %u was answered in frame %u.",
                                   read.frame, read.answer.frame)
        return { note = "repeated", text = text }
    end
    if read.card ~= frame.header.source then
        return {
            note = "mac",
            text = "The MAC address which isn't used by sending Register Read frame received set "
                .. "Completion frame.",
        }
    end
    read.answer = { frame = pinfo.number, time = pinfo.rel_ts }
    return { read = read }
end

local function duration(from, to)
    local sign = to < from and -1 or 1
    local nanoseconds = math.floor((to - from) * sign * 1e9 + 0.5)
    local seconds = math.floor(nanoseconds / 1e9)
    return NSTime(sign * seconds, sign * (nanoseconds - seconds * 1e9))
end

local function put_answer(tree, read)
    put_generated(tree, "response_time", duration(read.time, read.answer.time))
    if read.first_time then
        put_generated(tree, "first_response_time", duration(read.first_time, read.answer.time))
    end
end

-- Only after the whole capture is it known that a Register Read has no answer.
local function show_read(pinfo, tree)
    local read = reads[pinfo.number]
    if read == nil then return end
    if read.earlier then
        put_generated(tree, "resend_of", read.earlier.frame)
        tree:add_proto_expert_info(notes.resent)
    end
    if read.answer then
        put_generated(tree, "response_in", read.answer.frame)
        put_answer(tree, read)
    elseif pinfo.visited and not read.is_resent then
        tree:add_proto_expert_info(notes.unanswered)
    end
end

-- ---- Messages -----------------------------------------------------------------------------------

-- Notes on what may be all right: a request is not for managers, and a Completion may answer a
-- read from before the capture.
local innocent = { for_cards = true, unasked = true }

-- Returns its text for the summary.
local function show_drop(tree, note, text)
    tree:add_proto_expert_info(notes[note], text)
    if innocent[note] then return "" end
    put_generated(tree, "dropped", text)
    return " [" .. text .. "]"
end

local function show_address(tree, address)
    put_generated(tree, "address", address)
    if registers[address] then put_generated(tree, "register", registers[address]) end
end

local function address_text(address)
    local name = registers[address]
    return string.format("0x%06x", address) .. (name and " (" .. name .. ")" or "")
end

local bridge = {
    { "pri_bus_num", 0, 1 }, { "sec_bus_num", 1, 1 }, { "sub_bus_num", 2, 1 }, { "command", 3, 1 },
    { "memory_base", 4, 2 }, { "memory_limit", 6, 2 }, { "pre_memory_base", 8, 2 },
    { "pre_memory_limit", 10, 2 }, { "pre_base_upper", 12, 4 }, { "pre_limit_upper", 16, 4 },
}
local BRIDGE_SIZE = 20
local UP_PORT = 28
local DOWN_PORT_SIZE = 28

-- An item for a part of the frame, whose end may be missing.
local function put_part(frame, tree, key, at, size)
    local there = math.min(size, frame.captured - at)
    if there <= 0 then return nil end
    return put(frame, tree, fields[key], at, there)
end

local function put_down_port(frame, tree, number)
    local at = UP_PORT + BRIDGE_SIZE + number * DOWN_PORT_SIZE
    local port = put_part(frame, tree, "down_port", at, DOWN_PORT_SIZE)
    if port == nil then return end
    port:append_text(" " .. number)
    put_generated(port, "down_port.number", number)
    local status = put(frame, port, fields["down_port.port_status"], at, 2)
    if status then put(frame, status, fields["down_port.connected"], at + 1, 1) end
    local io_mac = put(frame, port, fields["down_port.io_mac"], at + 2, 6)
    if io_mac and math.floor(byte_at(frame, at + 1) / 2) % 2 == 1 then
        port:append_text(": QNIO " .. mac_text(range_of(frame, at + 2, 6):raw()))
    end
    put_rows(frame, port, bridge, "down_port.", at + 8)
end

-- Returns where the message ends.
local function show_server(frame, tree)
    local up_port = put_part(frame, tree, "up_port", UP_PORT, BRIDGE_SIZE)
    if up_port then put_rows(frame, up_port, bridge, "up_port.", UP_PORT) end
    for number = 0, frame.message.down_ports - 1 do
        put_down_port(frame, tree, number)
    end
    return frame.message.server_size
end

local function show_io(frame, tree)
    local substate = put(frame, tree, fields.io_substate, 28, 2)
    if substate then put(frame, substate, fields.connected, 29, 1) end
    put_rows(frame, tree, {
        { "ser_mac", 30, 6 }, { "device_id", 36, 2 }, { "vendor_id", 38, 2 }, { "reserved", 40, 1 },
        { "class_code", 41, 3 },
    })
    if not frame.is_multi_root then return 44 end
    put(frame, tree, fields.resource_id, 44, 2)
    return 46
end

local function show_info_bits(frame, info)
    if info == nil then return end
    if frame.host == 1 then
        local link0 = frame.is_multi_root and link0_fault_mr or fields.link0_fault
        local link1 = frame.is_multi_root and link1_fault_mr or fields.link1_fault
        put(frame, info, link0, 22, 1)
        put(frame, info, link1, 22, 1)
    end
    put(frame, info, fields.uid_switch, 22, 1)
    put(frame, info, fields.power, 22, 1)
end

local function show_sw_status(frame, tree)
    local status = put_part(frame, tree, "sw_status", 25, 3)
    if status == nil then return end
    put_rows(frame, status, {
        { "sw_status0", 25, 1 }, { "version", 26, 1 }, { "port0_link", 26, 1 },
        { "port1_link", 26, 1 },
    })
    if frame.host == 1 then put(frame, status, fields.pcie_presence, 26, 1) end
    put(frame, status, fields.int_vector, 27, 1)
end

-- The two addresses of a 40G card differ in the lowest bit, which is the path and not part of the
-- ID.
local function show_identity(frame, tree)
    local mac, path = frame.header.source, 0
    if byte_at(frame, 21) ~= 0 then
        path = mac:byte(6) % 2
        mac = mac:sub(1, 5) .. string.char(mac:byte(6) - path)
    end
    local id = put_generated(tree, "card_id", Address.ether(mac_text(mac)))
    id:append_text(" (" .. id_text(mac) .. ")")
    put_generated(tree, "path", path)
    return string.format(" %s path %u", id_text(mac), path)
end

local hosts_show = { [0] = show_server, [1] = show_io }

local function show_announcement(frame, tree, _, info)
    frame.host = byte_at(frame, 23)
    frame.is_multi_root = frame.host == 1 and (byte_at(frame, 26) or 0) % 16 == VERSION_MR
    local text = " " .. (hosts[frame.host] or "of unknown kind")
    if frame.header and byte_at(frame, 21) then text = text .. show_identity(frame, tree) end
    show_info_bits(frame, info)
    put(frame, tree, fields.host, 23, 1)
    put(frame, tree, fields.link_status, 24, 1)
    show_sw_status(frame, tree)
    local show = hosts_show[frame.host]
    if show then
        put_rest(frame, tree, "padding", show(frame, tree))
    else
        put_rest(frame, tree, "unread", LEAST_LENGTH)
    end
    return text
end

local function show_match(tree, match)
    if match == nil then return "" end
    if match.note then return show_drop(tree, match.note, match.text) end
    local read = match.read
    put_generated(tree, "response_to", read.frame)
    put_answer(tree, read)
    show_address(tree, read.address)
    return " of " .. address_text(read.address)
end

local function show_completion(frame, tree, pinfo)
    put_rows(frame, tree, { { "tag", 23, 1 }, { "data", 24, 4 } })
    put_rest(frame, tree, "padding", 28)
    local tag, data = byte_at(frame, 23), range_of(frame, 24, 4)
    if tag == nil then return "" end
    if not pinfo.visited and frame.header and not frame.drop then
        completions[pinfo.number] = match_completion(frame, pinfo, tag)
    end
    local value = data and string.format(" value 0x%08x", data:le_uint()) or ""
    return string.format(" tag %u", tag) .. value .. show_match(tree, completions[pinfo.number])
end

-- Bits 12 to 21 are sent four places higher.
local function put_register(frame, tree)
    put(frame, tree, fields.tag, 23, 1)
    put(frame, tree, fields.wire_address, 24, 4)
    local range = range_of(frame, 24, 4)
    if range == nil then return nil end
    local address = range:bitfield(6, 10) * 0x1000 + range:bitfield(20, 12)
    show_address(tree, address)
    return address
end

local function show_register_read(frame, tree, pinfo)
    local address, tag = put_register(frame, tree), byte_at(frame, 23)
    put_rest(frame, tree, "padding", 28)
    if address == nil then return "" end
    if not pinfo.visited and frame.header then remember_read(frame, pinfo, tag, address) end
    show_read(pinfo, tree)
    return string.format(" tag %u %s", tag, address_text(address))
end

local function show_register_write(frame, tree)
    local address, data = put_register(frame, tree), range_of(frame, 28, 4)
    put(frame, tree, fields.data, 28, 4)
    put_rest(frame, tree, "padding", 32)
    if data == nil then return "" end
    return string.format(" %s value 0x%08x", address_text(address), data:le_uint())
end

local function show_vlan_set(frame, tree)
    put_rows(frame, tree, {
        { "set_type", 23, 1 }, { "new_vlan_id", 24, 2 }, { "reserved", 26, 2 },
    })
    put_rest(frame, tree, "padding", 28)
    local vlan_id = range_of(frame, 24, 2)
    return vlan_id and string.format(" to %u", vlan_id:uint()) or ""
end

local function show_reset(frame, tree)
    put(frame, tree, fields.status, 23, 1)
    put_rest(frame, tree, "padding", 24)
    local status = byte_at(frame, 23)
    return status and string.format(" status 0x%02x", status) or ""
end

local function show_mms_write(frame, tree)
    put_rows(frame, tree, { { "reserved", 23, 1 }, { "page", 24, 4 } })
    local words = put_part(frame, tree, "words", 28, 128)
    for number = 0, words and 31 or -1 do
        local word = put(frame, words, fields.word, 28 + 4 * number, 4)
        if word then word:prepend_text(number .. ": ") end
    end
    put_rest(frame, tree, "padding", 156)
    local page = range_of(frame, 24, 4)
    return page and string.format(" page %u", page:uint()) or ""
end

-- Messages by subtype. For messages to managers, to_manager; for messages to cards, their bytes
-- (size), the minimum size of their frame (frame_size), and faults of their own.
local messages = {
    [0x10] = { name = "1G/10G DEVINFO", down_ports = 8, server_size = 272, only_version_0 = true },
    [0x11] = { name = "1G/10G NOTIFY", down_ports = 8, server_size = 272, only_version_0 = true },
    [0x18] = { name = "40G DEVINFO", down_ports = 16, server_size = 496 },
    [0x19] = { name = "40G NOTIFY", down_ports = 16, server_size = 496 },
    [0x20] = { name = "Completion", show = show_completion },
    [0x30] = { name = "Reset", show = show_reset, size = 24, frame_size = 60, faults = {} },
    [0x80] = {
        name = "VLAN set", show = show_vlan_set, size = 28, frame_size = 60,
        faults = { check_zero(23, "the set type is not 0"), check_reserved(26, 2) },
    },
    [0x90] = {
        name = "Register Write", show = show_register_write, size = 32, frame_size = 60,
        faults = { check_zero(23, "the tag of a write is not 0"), check_address },
    },
    [0x91] = {
        name = "Register Read", show = show_register_read, size = 28, frame_size = 60,
        faults = { check_address },
    },
    [0x92] = {
        name = "MMS write", show = show_mms_write, size = 156, frame_size = 156,
        faults = { check_reserved(23, 1) },
    },
}

local subtypes = {}
for subtype, message in pairs(messages) do
    subtypes[subtype] = message.name
    if message.server_size then message.show = show_announcement end
    message.to_manager = message.faults == nil
end
define("subtype", "uint8", "Message", base.HEX, subtypes)

quillnet.fields = all_fields
quillnet.experts = all_notes

-- ---- Dissection ---------------------------------------------------------------------------------

local function put_tci(tree, add)
    local tci = add(tree, "tci")
    if tci == nil then return end
    for _, key in ipairs({ "priority", "cfi", "vlan_id" }) do add(tci, key) end
end

-- In the ordinary arrangement the bytes of the header are before those that the dissector gets.
local function show_header(frame, tree)
    local header = frame.header
    if frame.first == 14 then
        put(frame, tree, fields.tpid, 14, 2)
        put_tci(tree, function(to, key) return put(frame, to, fields[key], 16, 2) end)
    end
    if header == nil then return end
    put_generated(tree, "vlan_mode", header.vlan_mode)
    if header.type then put_generated(tree, "type", header.type) end
    if frame.first == 14 then return end
    put_generated(tree, "tpid", header.tpid)
    if header.tci == nil then return end
    put_tci(tree, function(to, key)
        local is_set = math.floor(header.tci / 0x1000) % 2 == 1
        return put_generated(to, key, key == "cfi" and is_set or header.tci)
    end)
end

local function show_message(frame, tree, pinfo)
    put_rows(frame, tree, {
        { "subtype", 18, 1 }, { "flowid_da", 19, 1 }, { "flowid_sa", 20, 1 }, { "ver", 21, 1 },
    })
    local info = put(frame, tree, fields.info, 22, 1)
    if frame.message == nil then
        put_rest(frame, tree, "unread", 23)
        return ""
    end
    return frame.message.show(frame, tree, pinfo, info)
end

function quillnet.dissector(tvb, pinfo, root)
    local frame = make_frame(tvb, pinfo)
    local tree = root:add(quillnet, tvb())
    local is_tagged = frame.header == nil or frame.header.tpid == VLAN_TPID
    frame.subtype = is_tagged and byte_at(frame, MESSAGE) or nil
    frame.message = frame.subtype and messages[frame.subtype]
    local drop, text = check_frame(frame)
    frame.drop = drop

    pinfo.cols.protocol = "Quillnet"
    local summary = frame.message and frame.message.name
        or frame.subtype and string.format("Subtype 0x%02x", frame.subtype)
        or "Frame without a message"
    show_header(frame, tree)
    local drop_text = drop and show_drop(tree, drop, text) or ""
    if is_tagged then
        summary = summary .. show_message(frame, tree, pinfo)
    else
        put_rest(frame, tree, "unread", 18)
    end
    if frame.message and frame.message.faults then note_faults(frame, tree) end
    if frame.is_cut then tree:add_proto_expert_info(notes.cut) end
    summary = summary .. drop_text
    tree:append_text(", " .. summary)
    pinfo.cols.info = summary
    return tvb:len()
end

-- ---- Registration -------------------------------------------------------------------------------

local ether_types = DissectorTable.get("ethertype")
local registered

local function register()
    local wanted = quillnet.prefs.ether_type
    if wanted == registered or wanted > 0xFFFF then return end
    if registered then ether_types:remove(registered, quillnet) end
    ether_types:add(wanted, quillnet)
    registered = wanted
end

quillnet.prefs_changed = register
register()
quillnet:register_heuristic("eth", peek)
