// TLV utility. A field is encoded as its id and its length (2 bytes each, network byte order) and its items, each in
// network byte order. Bytes come from a store and may be anything: they are measured as a whole before any is decoded.
#include "platform/tlvu.h"

#include <cstring>

#include "platform/reference/wire.h"

using namespace ref;

namespace {

constexpr uint32_t id_place = 0, size_place = 2, header_size = 4;
constexpr uint32_t id_max = 0xFFFF, value_size_max = 0xFFFF;

// Items have 1, 2 or 4 bytes.
void encode_item(uint8_t *to, const uint8_t *from, uint32_t size) {
  if (size == 4)
    wire::store_be32(to, wire::load_host<uint32_t>(from));
  else if (size == 2)
    wire::store_be16(to, wire::load_host<uint16_t>(from));
  else
    *to = *from;
}

void decode_item(uint8_t *to, const uint8_t *from, uint32_t size) {
  if (size == 4)
    wire::store_host(to, wire::load_be32(from));
  else if (size == 2)
    wire::store_host(to, wire::load_be16(from));
  else
    *to = *from;
}

bool is_end(const tlvu_field *field) { return field->id == TLVU_END; }

uint64_t value_size(const tlvu_field *field) { return uint64_t{field->size} * field->count; }

bool is_usable(const tlvu_field *field, uint32_t record_size) {
  if (field->id == 0 || field->id > id_max) return false;
  if (field->size != 1 && field->size != 2 && field->size != 4) return false;
  return value_size(field) <= value_size_max && field->offset + value_size(field) <= record_size;
}

bool is_usable(const tlvu_table *table) {
  if (table == nullptr || table->fields == nullptr || is_end(table->fields)) return false;
  for (const tlvu_field *field = table->fields; !is_end(field); field++)
    if (!is_usable(field, table->record_size)) return false;
  return true;
}

}  // namespace

int tlvu_table_convert_struct_to_tlv(const tlvu_table *table, const void *record, uint8_t *buffer, uint32_t buffer_size,
                                     uint32_t *written) {
  if (!is_usable(table) || record == nullptr || buffer == nullptr || written == nullptr) return TLVU_ERR_ARGUMENT;
  if (tlvu_table_size(table, record) > buffer_size) return TLVU_ERR_SPACE;
  uint8_t *to = buffer;
  for (const tlvu_field *field = table->fields; !is_end(field); field++) {
    wire::store_be16(to + id_place, static_cast<uint16_t>(field->id));
    wire::store_be16(to + size_place, static_cast<uint16_t>(value_size(field)));
    to += header_size;
    const uint8_t *from = static_cast<const uint8_t *>(record) + field->offset;
    for (uint32_t i = 0; i < field->count; i++, from += field->size, to += field->size)
      encode_item(to, from, field->size);
  }
  *written = static_cast<uint32_t>(to - buffer);
  return TLVU_OK;
}

int tlvu_table_convert_tlv_to_struct(const tlvu_table *table, const uint8_t *tlv, uint32_t length, void *record,
                                     uint32_t record_size) {
  uint32_t decoded_size;
  if (record == nullptr) return TLVU_ERR_ARGUMENT;
  if (const int error = tlvu_table_struct_size(table, tlv, length, &decoded_size); error != TLVU_OK) return error;
  if (record_size < decoded_size) return TLVU_ERR_SPACE;
  std::memset(record, 0, decoded_size);
  for (const tlvu_field *field = table->fields; !is_end(field); field++) {
    const uint8_t *from;
    uint32_t size;
    if (tlvu_table_get_field(table, tlv, length, field->id, &from, &size) != 0) return TLVU_ERR_FIELD;
    if (size != value_size(field)) return TLVU_ERR_FIELD;
    uint8_t *to = static_cast<uint8_t *>(record) + field->offset;
    for (uint32_t i = 0; i < field->count; i++, from += field->size, to += field->size)
      decode_item(to, from, field->size);
  }
  return TLVU_OK;
}

uint32_t tlvu_table_size(const tlvu_table *table, const void *) {
  if (!is_usable(table)) return 0;
  uint32_t size = 0;
  for (const tlvu_field *field = table->fields; !is_end(field); field++)
    size += header_size + static_cast<uint32_t>(value_size(field));
  return size;
}

int tlvu_table_struct_size(const tlvu_table *table, const uint8_t *tlv, uint32_t length, uint32_t *size) {
  tlvu_field_iterator iterator;
  int error = size != nullptr ? tlvu_table_field_itr_init(table, tlv, length, &iterator) : TLVU_ERR_ARGUMENT;
  while (error == TLVU_OK) {
    uint32_t id, field_size;
    const uint8_t *value;
    error = tlvu_table_field_get_next(table, &iterator, &id, &value, &field_size);
  }
  if (error > 0) return error;
  *size = table->record_size;
  return TLVU_OK;
}

int tlvu_table_field_itr_init(const tlvu_table *table, const uint8_t *tlv, uint32_t length,
                              tlvu_field_iterator *iterator) {
  if (!is_usable(table) || tlv == nullptr || iterator == nullptr) return TLVU_ERR_ARGUMENT;
  *iterator = {tlv, length, 0};
  return TLVU_OK;
}

int tlvu_table_field_get_next(const tlvu_table *, tlvu_field_iterator *iterator, uint32_t *id, const uint8_t **value,
                              uint32_t *size) {
  const uint32_t left = iterator->length - iterator->position;
  if (left == 0) return -1;
  if (left < header_size) return TLVU_ERR_TRUNCATED;
  const uint8_t *at = iterator->tlv + iterator->position;
  const uint32_t value_bytes = wire::load_be16(at + size_place);
  if (value_bytes > left - header_size) return TLVU_ERR_TRUNCATED;
  *id = wire::load_be16(at + id_place);
  *size = value_bytes;
  *value = at + header_size;
  iterator->position += header_size + value_bytes;
  return TLVU_OK;
}

int tlvu_table_get_field(const tlvu_table *table, const uint8_t *tlv, uint32_t length, uint32_t id,
                         const uint8_t **value, uint32_t *size) {
  tlvu_field_iterator iterator;
  int error = tlvu_table_field_itr_init(table, tlv, length, &iterator);
  uint32_t found = 0;
  while (error == TLVU_OK) {
    error = tlvu_table_field_get_next(table, &iterator, &found, value, size);
    if (error == TLVU_OK && found == id) return TLVU_OK;
  }
  return error;
}
