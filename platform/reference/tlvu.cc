// TLV utility. A field is encoded as its id and its length (2 bytes each, network byte order) and its items, each in
// network byte order.
#include "tlvu.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

constexpr uint32_t kHeader = 4;

uint32_t load_be(const uint8_t *from, uint32_t size) {
  uint32_t value = 0;
  for (uint32_t i = 0; i < size; i++) value = value << 8 | from[i];
  return value;
}

void store_be(uint8_t *to, uint32_t value, uint32_t size) {
  for (uint32_t i = 0; i < size; i++) to[i] = static_cast<uint8_t>(value >> 8 * (size - 1 - i));
}

uint32_t load_item(const uint8_t *from, uint32_t size) {
  if (size == 1) return *from;
  if (size == 2) {
    uint16_t value;
    std::memcpy(&value, from, sizeof value);
    return value;
  }
  uint32_t value;
  std::memcpy(&value, from, sizeof value);
  return value;
}

void store_item(uint8_t *to, uint32_t value, uint32_t size) {
  const auto byte = static_cast<uint8_t>(value);
  const auto word = static_cast<uint16_t>(value);
  if (size == 1) std::memcpy(to, &byte, sizeof byte);
  if (size == 2) std::memcpy(to, &word, sizeof word);
  if (size == 4) std::memcpy(to, &value, sizeof value);
}

bool is_end(const tlvu_field *field) { return field->id == TLVU_END; }

uint32_t value_size(const tlvu_field *field) { return field->size * field->count; }

bool usable(const tlvu_table *table) {
  if (table == nullptr || table->fields == nullptr || is_end(table->fields)) return false;
  for (const tlvu_field *field = table->fields; !is_end(field); field++)
    if ((field->size != 1 && field->size != 2 && field->size != 4) ||
        uint64_t{field->offset} + value_size(field) > table->record_size)
      return false;
  return true;
}

}  // namespace

int tlvu_table_convert_struct_to_tlv(const tlvu_table *table, const void *record, uint8_t *buffer,
                                     uint32_t buffer_size, uint32_t *written) {
  if (!usable(table) || record == nullptr || buffer == nullptr) return TLVU_ERR_ARGUMENT;
  if (tlvu_table_size(table, record) > buffer_size) return TLVU_ERR_SPACE;
  uint8_t *to = buffer;
  for (const tlvu_field *field = table->fields; !is_end(field); field++) {
    store_be(to, field->id, 2);
    store_be(to + 2, value_size(field), 2);
    to += kHeader;
    const uint8_t *from = static_cast<const uint8_t *>(record) + field->offset;
    for (uint32_t i = 0; i < field->count; i++, from += field->size, to += field->size)
      store_be(to, load_item(from, field->size), field->size);
  }
  if (written != nullptr) *written = static_cast<uint32_t>(to - buffer);
  return TLVU_OK;
}

int tlvu_table_convert_tlv_to_struct(const tlvu_table *table, const uint8_t *tlv, uint32_t length, void *record,
                                     uint32_t record_size) {
  if (!usable(table) || tlv == nullptr || record == nullptr) return TLVU_ERR_ARGUMENT;
  if (record_size < table->record_size) return TLVU_ERR_SPACE;
  std::memset(record, 0, table->record_size);
  for (const tlvu_field *field = table->fields; !is_end(field); field++) {
    const uint8_t *value;
    uint32_t size;
    const int error = tlvu_table_get_field(table, tlv, length, field->id, &value, &size);
    if (error == TLVU_ERR_TRUNCATED) return error;
    if (error != 0 || size != value_size(field)) return TLVU_ERR_FIELD;
    uint8_t *to = static_cast<uint8_t *>(record) + field->offset;
    for (uint32_t i = 0; i < field->count; i++)
      store_item(to + i * field->size, load_be(value + i * field->size, field->size), field->size);
  }
  return TLVU_OK;
}

uint32_t tlvu_table_size(const tlvu_table *table, const void *) {
  uint32_t size = 0;
  for (const tlvu_field *field = table->fields; !is_end(field); field++) size += kHeader + value_size(field);
  return size;
}

int tlvu_table_struct_size(const tlvu_table *table, const uint8_t *tlv, uint32_t length, uint32_t *size) {
  if (!usable(table) || tlv == nullptr) return TLVU_ERR_ARGUMENT;
  tlvu_field_iterator iterator{tlv, length, 0};
  uint32_t id, field_size;
  const uint8_t *value;
  int error;
  do error = tlvu_table_field_get_next(table, &iterator, &id, &value, &field_size);
  while (error == 0);
  if (error > 0) return error;
  *size = table->record_size;
  return TLVU_OK;
}

int tlvu_table_field_itr_init(const tlvu_table *table, const uint8_t *tlv, uint32_t length,
                              tlvu_field_iterator *iterator) {
  if (!usable(table) || tlv == nullptr || iterator == nullptr) return TLVU_ERR_ARGUMENT;
  *iterator = {tlv, length, 0};
  return TLVU_OK;
}

int tlvu_table_field_get_next(const tlvu_table *, tlvu_field_iterator *iterator, uint32_t *id, const uint8_t **value,
                              uint32_t *size) {
  const uint32_t left = iterator->length - iterator->position;
  if (left == 0) return -1;
  if (left < kHeader) return TLVU_ERR_TRUNCATED;
  const uint8_t *at = iterator->tlv + iterator->position;
  *id = load_be(at, 2);
  *size = load_be(at + 2, 2);
  if (*size > left - kHeader) return TLVU_ERR_TRUNCATED;
  *value = at + kHeader;
  iterator->position += kHeader + *size;
  return TLVU_OK;
}

int tlvu_table_get_field(const tlvu_table *table, const uint8_t *tlv, uint32_t length, uint32_t id,
                         const uint8_t **value, uint32_t *size) {
  tlvu_field_iterator iterator;
  int error = tlvu_table_field_itr_init(table, tlv, length, &iterator);
  uint32_t found;
  while (error == 0) {
    error = tlvu_table_field_get_next(table, &iterator, &found, value, size);
    if (error == 0 && found == id) return TLVU_OK;
  }
  return error;
}

void tlvu_error_print(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  std::vfprintf(stderr, format, arguments);
  va_end(arguments);
}
