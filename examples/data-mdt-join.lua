-- Data-MDT Join datagrams for tshark and Wireshark: UDP from and to port 3232, entries of 16 bytes.
--   tshark -X lua_script:data-mdt-join.lua -r FILE
local join = Proto("data_mdt_join", "Data-MDT Join")
local fields = {
  entry = ProtoField.none("data_mdt_join.entry", "Entry"),
  type = ProtoField.uint8("data_mdt_join.type", "Type"),
  length = ProtoField.uint16("data_mdt_join.length", "Length"),
  reserved = ProtoField.uint8("data_mdt_join.reserved", "Reserved"),
  source = ProtoField.ipv4("data_mdt_join.source", "Customer source"),
  group = ProtoField.ipv4("data_mdt_join.group", "Customer group"),
  data_group = ProtoField.ipv4("data_mdt_join.data_group", "Data-MDT group"),
}
join.fields = fields
local truncated = ProtoExpert.new("data_mdt_join.truncated", "The entry is cut off", expert.group.MALFORMED,
                                  expert.severity.ERROR)
local unknown = ProtoExpert.new("data_mdt_join.unknown", "An entry that receivers skip", expert.group.UNDECODED,
                                expert.severity.NOTE)
join.experts = { truncated, unknown }

local JOIN, SIZE, HEADER = 1, 16, 4

-- One entry at an offset; how many bytes it has.
local function entry(buffer, at, tree)
  local left = buffer:len() - at
  local size = left >= HEADER and buffer(at + 1, 2):uint() or left
  local node = tree:add(fields.entry, buffer(at, math.min(math.max(size, 1), left)))
  if left < HEADER or size > left then
    node:add_proto_expert_info(truncated)
    return left
  end
  node:add(fields.type, buffer(at, 1))
  node:add(fields.length, buffer(at + 1, 2))
  node:add(fields.reserved, buffer(at + 3, 1))
  if buffer(at, 1):uint() ~= JOIN or size ~= SIZE then
    node:add_proto_expert_info(unknown)
    return math.max(size, HEADER)
  end
  node:add(fields.source, buffer(at + 4, 4))
  node:add(fields.group, buffer(at + 8, 4))
  node:add(fields.data_group, buffer(at + 12, 4))
  node:set_text(string.format("(%s, %s) on %s", tostring(buffer(at + 4, 4):ipv4()), tostring(buffer(at + 8, 4):ipv4()),
                              tostring(buffer(at + 12, 4):ipv4())))
  return SIZE
end

function join.dissector(buffer, packet, tree)
  packet.cols.protocol = "Data-MDT"
  local node = tree:add(join, buffer())
  local at, entries = 0, 0
  while at < buffer:len() do
    at = at + entry(buffer, at, node)
    entries = entries + 1
  end
  packet.cols.info = entries == 1 and "Join" or string.format("Joins: %d", entries)
end

DissectorTable.get("udp.port"):add(3232, join)
