/* Diagnostics: event history, debug output and error reports. */
#ifndef PLATFORM_DIAG_H
#define PLATFORM_DIAG_H

#include "platform/mts.h"
#include "platform/types.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
  SDWRAP_UUID_PIM = 284,          /* the PIM process's identity in the event history */
  SDWRAP_HISTORY_MVPN = 0x730000, /* history instance of the module's events */
  SDWRAP_HISTORY_BUFFER = 13,     /* history buffer that they go to */
  SDWRAP_EVENT_MVPN = 131,        /* event type of a debug message */
  SDWRAP_EVENT_TEXT_MAX = 200,    /* bytes of an event's text, without the NUL */
};

struct pim_cibtype; /* pim.h */

/* A stored debug message. */
struct sdwrap_event {
  uint32_t type;                        /* SDWRAP_EVENT_MVPN */
  char text[SDWRAP_EVENT_TEXT_MAX + 1]; /* NUL-terminated */
};

/* Stores an event: (SDWRAP_UUID_PIM, SDWRAP_HISTORY_MVPN, SDWRAP_HISTORY_BUFFER, 0, text length + 5, record). The
 * length counts the type, the text and its NUL; the record is copied. */
void sdwrap_his_log_event_for_uuid_inst(uint32_t uuid, uint32_t instance, uint32_t buffer, uint32_t reserved,
                                        uint32_t length, const struct sdwrap_event *event);

/* Makes an event's text, NUL-terminated, from what was stored of it. */
typedef void (*sdwrap_text_writer)(const void *record, char text[SDWRAP_EVENT_TEXT_MAX + 1]);

enum { SDWRAP_RECORD_MAX = 512 }; /* bytes of such a record */

/* Optional: a platform that lacks it leaves it null. Stores an event of the same identity whose text is made when
 * somebody reads it: (SDWRAP_UUID_PIM, SDWRAP_HISTORY_MVPN, SDWRAP_HISTORY_BUFFER, writer, VRF, size, record). VRF:
 * the one whose name the text begins with, else null. size: a multiple of 8, at most SDWRAP_RECORD_MAX; the record is
 * copied, and given to the writer at an address aligned for pointers, while the module is loaded. */
void sdwrap_his_log_unformatted(uint32_t uuid, uint32_t instance, uint32_t buffer, sdwrap_text_writer writer,
                                const struct pim_cibtype *pcib, uint32_t size, const void *record)
    __attribute__((weak));

/* Non-zero when events of this type are filtered out of the history. */
int sdwrap_hist_event_subtype_check(uint32_t instance, uint32_t type);

/* Stores a formatted debug message that belongs to no VRF. */
void sdwrap_hist_event(uint32_t instance, uint32_t type, const char *format, ...) __attribute__((format(printf, 3, 4)));

/* Non-zero when debug messages of this type are to be printed: sdwrap_chk_int(SDWRAP_EVENT_MVPN, 0, 0, 1). */
int sdwrap_chk_int(uint32_t type, uint32_t reserved1, uint32_t reserved2, uint32_t level);

/* Prints debug output, without and with a VRF prefix in the text. The service adds a newline where it is missing. */
void buginf(const char *format, ...) __attribute__((format(printf, 1, 2)));
void buginf_func(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* Makes the transport's queue known to the debug service. 0 on success, else an error code for syserr2str. */
int sdwrap_dbg_init_register_mts_q(mts_queue *queue);
const char *syserr2str(int code);

/* A kind of error report. Lower severities are worse (RFC 5424). */
struct syslog_descriptor {
  const char *name;         /* such as "PIM_MALLOC" */
  uint32_t severity;        /* 0..7 */
  uint32_t wants_traceback; /* 1: the report is followed by a traceback */
  const char *text;         /* what went wrong; the arguments follow it */
};

/* The process's log facility; null until the host has set one up. */
struct sdwrap_facility {
  uint32_t level; /* reports with a severity up to this one are wanted */
};
extern struct sdwrap_facility *sdwrap_sys_facility;

/* Asks the rate limiter for one report of this kind. Non-zero: it may be written. While there is no facility the
 * limiter writes the report itself, to the process's standard error, when it may be written.
 * arguments: count texts, in the order in which the report shows them. */
int syslog_msg_rate_limit(const struct syslog_descriptor *descriptor, uint32_t count, const char *const *arguments);

/* Prefix of the process's reports. */
const char *syslog_preamble(void);

/* Writes a report to the facility; writes the caller's call stack there. */
void zeph_lumo_syslog(const struct syslog_descriptor *descriptor, const char *preamble, uint32_t count,
                      const char *const *arguments);
void syslog_traceback(const struct syslog_descriptor *descriptor);

/* Writes a free-form message at a severity. */
void syslog_log(uint32_t severity, const char *format, ...) __attribute__((format(printf, 2, 3)));

/* The PIM process's error reports. */
extern const struct syslog_descriptor msg_error_PIM_API_FAILED;
extern const struct syslog_descriptor msg_error_PIM_API_INIT;
extern const struct syslog_descriptor msg_error_PIM_AVL_ERROR;
extern const struct syslog_descriptor msg_error_PIM_BIND;
extern const struct syslog_descriptor msg_error_PIM_CV_INIT;
extern const struct syslog_descriptor msg_error_PIM_MALLOC;
extern const struct syslog_descriptor msg_error_PIM_MTS_SEND;
extern const struct syslog_descriptor msg_error_PIM_MV_INIT;
extern const struct syslog_descriptor msg_error_PIM_OIM_REGISTER_FAIL;
extern const struct syslog_descriptor msg_error_PIM_OPCODE_REG;
extern const struct syslog_descriptor msg_error_PIM_PT_ADD;
extern const struct syslog_descriptor msg_error_PIM_PTHREAD_CREATE;
extern const struct syslog_descriptor msg_error_PIM_SETSOCKOPT;
extern const struct syslog_descriptor msg_error_PIM_SLAB_CREATE;
extern const struct syslog_descriptor msg_error_PIM_SOCKET;
extern const struct syslog_descriptor msg_error_PIM_TIMER_CREATE;
extern const struct syslog_descriptor msg_error_PIM_TIMER_SET_INIT;
extern const struct syslog_descriptor msg_error_PIM_TUNNEL_ADD_FAIL;
extern const struct syslog_descriptor msg_error_PIM_TUNNEL_ADD_TLV_FAIL;
extern const struct syslog_descriptor msg_error_PIM_TUNNEL_CREATE_FAIL;
extern const struct syslog_descriptor msg_error_PIM_TXLIST_CREATE;
extern const struct syslog_descriptor msg_error_PIM_UDP_READ;

#ifdef __cplusplus
}
#endif

#endif /* PLATFORM_DIAG_H */
