/* SPDX-License-Identifier: Apache-2.0
 * A small library of the interface's kind. Each macro makes one change to it, which check_test.sh
 * has to find. */
#include <stdint.h>

typedef struct zem_usage {
  uint64_t tokens;
#ifdef A_RECORD_WITHOUT_SIZE_GROWS
  uint64_t more;
#endif
} zem_usage;

#ifdef A_VALUE_CHANGES
typedef enum zem_code { ZEM_OK = 0, ZEM_ERROR = 2 } zem_code;
#elif defined(A_VALUE_IS_ADDED)
typedef enum zem_code { ZEM_OK = 0, ZEM_ERROR = 1, ZEM_LATER = 2 } zem_code;
#elif defined(A_VALUE_GOES)
typedef enum zem_code { ZEM_OK = 0 } zem_code;
#define ZEM_ERROR ZEM_OK
#else
typedef enum zem_code { ZEM_OK = 0, ZEM_ERROR = 1 } zem_code;
#endif

typedef struct zem_event {
  uint32_t struct_size;
#ifdef A_FIELD_IS_INSERTED
  uint64_t inserted;
#endif
#ifdef FIELDS_SWAP
  const char* text;
  uint32_t kind;
#else
  uint32_t kind;
  const char* text;
#endif
#ifdef A_FIELD_CHANGES_ITS_TYPE
  double token;
#else
  uint64_t token;
#endif
#ifndef A_FIELD_GOES
  zem_usage usage;
#endif
#ifdef A_FIELD_IS_APPENDED
  uint64_t appended;
#endif
} zem_event;

typedef void (*zem_event_fn)(const zem_event* event
#ifdef A_CALLBACK_CHANGES
                             ,
                             int32_t more
#endif
);

#define API __attribute__((visibility("default")))

#ifdef A_SIGNATURE_CHANGES
API zem_code zem_next(uint64_t request, zem_event* event);
zem_code zem_next(uint64_t request, zem_event* event) {
#else
API zem_code zem_next(uint32_t request, zem_event* event);
zem_code zem_next(uint32_t request, zem_event* event) {
#endif
  return request != 0 && event != 0 ? ZEM_OK : ZEM_ERROR;
}

API zem_code zem_listen(zem_event_fn callback);
zem_code zem_listen(zem_event_fn callback) { return callback != 0 ? ZEM_OK : ZEM_ERROR; }

#ifndef A_FUNCTION_GOES
API uint32_t zem_version(void);
uint32_t zem_version(void) { return 1; }
#endif

#ifdef A_FUNCTION_IS_ADDED
API uint32_t zem_added(void);
uint32_t zem_added(void) { return 1; }
#endif
