/* TLV utility: turns plain records into self-describing bytes and back, by a table that describes the record. */
#ifndef PLATFORM_TLVU_H
#define PLATFORM_TLVU_H

#include "platform/types.h"

#ifdef __cplusplus
extern "C" {
#endif

#define TLVU_END 0xFFFFFFFFu

/* A field of a record. The last row of a table has id, size and offset TLVU_END. */
struct tlvu_field {
  uint32_t id;           /* 1..65535, unique in the table */
  uint32_t size;         /* bytes of one item: 1, 2 or 4; numbers are stored in network byte order */
  uint32_t offset;       /* bytes from the start of the record */
  uint32_t count;        /* items */
  uint32_t reserved[5];  /* 0 */
  uint32_t element_size; /* size again */
  uint32_t subtable;     /* TLVU_END: none */
  uint32_t flags;        /* 0 */
};

struct tlvu_table {
  uint32_t record_size;            /* bytes */
  const char *record_name;         /* for error texts */
  const struct tlvu_field *fields; /* ends with a row of TLVU_END; lives as long as the table */
};

/* Error codes; 0 is success. */
enum tlvu_error {
  TLVU_OK = 0,
  TLVU_ERR_ARGUMENT = 1,  /* a null pointer or an empty table */
  TLVU_ERR_SPACE = 2,     /* the output does not fit */
  TLVU_ERR_TRUNCATED = 3, /* the bytes end inside a field, or are no multiple of one */
  TLVU_ERR_FIELD = 4,     /* a field's size contradicts the table, or a field of the table is missing */
};

/* Encodes a record into buffer; *written receives the bytes used. */
int tlvu_table_convert_struct_to_tlv(const struct tlvu_table *table, const void *record, uint8_t *buffer,
                                     uint32_t buffer_size, uint32_t *written);

/* Decodes length bytes into a record of record_size bytes; fields of unknown id are skipped. The record is unspecified
 * after an error. */
int tlvu_table_convert_tlv_to_struct(const struct tlvu_table *table, const uint8_t *tlv, uint32_t length, void *record,
                                     uint32_t record_size);

/* Bytes of an encoded record; bytes of a decoded one (*size), with an error code. */
uint32_t tlvu_table_size(const struct tlvu_table *table, const void *record);
int tlvu_table_struct_size(const struct tlvu_table *table, const uint8_t *tlv, uint32_t length, uint32_t *size);

/* Walk over the encoded fields. get_next: 0 and *id, *value, *size filled; TLVU_ERR_TRUNCATED for bad bytes; -1 at
 * the end. get_field: the field with an id; -1 when absent. Values stay in the encoded bytes, network byte order. */
struct tlvu_field_iterator {
  /* The service's; tlv stays the caller's and outlives the walk. length and position count bytes. */
  const uint8_t *tlv;
  uint32_t length;
  uint32_t position;
};
int tlvu_table_field_itr_init(const struct tlvu_table *table, const uint8_t *tlv, uint32_t length,
                              struct tlvu_field_iterator *iterator);
int tlvu_table_field_get_next(const struct tlvu_table *table, struct tlvu_field_iterator *iterator, uint32_t *id,
                              const uint8_t **value, uint32_t *size);
int tlvu_table_get_field(const struct tlvu_table *table, const uint8_t *tlv, uint32_t length, uint32_t id,
                         const uint8_t **value, uint32_t *size);

/* Writes an error to the process's log. */
void tlvu_error_print(const char *format, ...) __attribute__((format(printf, 1, 2)));

#ifdef __cplusplus
}
#endif

#endif /* PLATFORM_TLVU_H */
