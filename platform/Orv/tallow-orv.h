#pragma once

/*
 * The interface between tallowd and a machine-identity library, version 1. Plain C.
 *
 * A machine-identity library knows this machine's secrets: it computes the one-time passwords that
 * go with store requests, and takes part in the exchanges by which a store makes the machine known.
 * tallowd has one built in. A shared library takes its place when the administrator names it
 * (docs/machine-identity.md); platform/Orv/example/example-orv.c is one, complete.
 *
 *     cc -shared -fPIC -o my-orv.so my-orv.c
 *
 * Rules
 * - The service calls one function at a time, from any of its threads.
 * - A call may wait (for a device, say), but every header answer of the service that needs this
 *   machine's identity waits with it. Nothing here may use the network: the service does that.
 * - Byte buffers that a function returns belong to the library; the service reads them, and gives
 *   each back through release() exactly once. A buffer is at most TALLOW_ORV_LARGEST_BUFFER bytes;
 *   a longer one is given back unread and counts as a failure. Outputs are null, zero and zero when
 *   a function is called; one that fails leaves them so. No two outputs are one and the same
 * buffer; one of no bytes counts as none.
 * - Every session that start_provisioning() opens is ended through end_session(), whatever becomes
 *   of it. A session is any number but 0.
 * - A DSID is an account's number at the store: TALLOW_ORV_ANONYMOUS stands for the machine without
 *   an account, 0 for an account that is not known.
 * - The service confines itself: a library may read what lies below /usr and /etc, and write below
 *   its state folder only. It may start no program and listen on no socket, and nothing in it may
 * be both writable and executable.
 */

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define TALLOW_ORV_VERSION 1u
#define TALLOW_ORV_ANONYMOUS UINT64_MAX
#define TALLOW_ORV_LARGEST_BUFFER (1u << 20)

/* Statuses that the service tells apart; every other one is a failure, and is what the log says. */
#define TALLOW_ORV_SUCCESS 0
#define TALLOW_ORV_NOT_PROVISIONED (-45061)

/* What the service gives a library when it opens it. Lives as long as the call. */
struct tallow_orv_host {
  uint32_t version; /* TALLOW_ORV_VERSION as the service was built with */
  const char*
      state_folder; /* absolute; for the library alone; there, and for others not to write */
  /* Writes a line to the service's log: level 1 failures, 2 warnings, 3 detail. Any thread, at any
   * time. No secrets. */
  void (*log)(int32_t level, const char* line);
};

/* One library. The table stays as it is for the life of the process. `self` is what open() made. */
struct tallow_orv_library {
  uint32_t version; /* TALLOW_ORV_VERSION as the library was built with */
  const char* name; /* for people: "Example 1.2" */

  int32_t (*open)(const struct tallow_orv_host* host, void** self);
  void (*close)(void* self);
  void (*release)(void* self, uint8_t* buffer);

  /* This moment's one-time password, and this machine's identifier for the DSID. */
  int32_t (*request_password)(void* self, uint64_t dsid, uint8_t** machine_identifier,
                              uint32_t* machine_identifier_length, uint8_t** password,
                              uint32_t* password_length);

  /* Forgets what was agreed with the store for the DSID. Nothing to forget is a success. */
  int32_t (*reset_provisioning)(void* self, uint64_t dsid);

  /* The three steps of provisioning: what the store has sent to begin with (perhaps nothing) makes
   * what to send it; its answer (either part perhaps nothing) ends it. */
  int32_t (*start_provisioning)(void* self, uint64_t dsid, const uint8_t* data,
                                uint32_t data_length, uint8_t** client_data,
                                uint32_t* client_data_length, uint32_t* session);
  int32_t (*finish_provisioning)(void* self, uint32_t session, const uint8_t* setting_info,
                                 uint32_t setting_info_length, const uint8_t* transport_key,
                                 uint32_t transport_key_length);
  void (*end_session)(void* self, uint32_t session);

  /* What to send to a store that wants to synchronise with this machine. */
  int32_t (*synchronize_machine)(void* self, uint64_t dsid, const uint8_t* data,
                                 uint32_t data_length, uint8_t** machine_identifier,
                                 uint32_t* machine_identifier_length, uint8_t** client_data,
                                 uint32_t* client_data_length);

  /* Whether request_password() would answer at once now: without a device, a file, a lock or
   * another process. The service then asks where it must not wait, and answers faster. May be null:
   * never. */
  int32_t (*password_is_at_hand)(void* self, uint64_t dsid);

  /* For people: writes the DSIDs that are provisioned, at most `capacity`, and returns how many
   * there are. May be null. */
  uint32_t (*list_provisioned)(void* self, uint64_t* dsids, uint32_t capacity);
};

/* What a shared library exports under this name. Null when it cannot serve a service that speaks
 * `version`; later versions of the interface only add to the end of the table, so a library that
 * can serve version 1 can serve them all. */
const struct tallow_orv_library* tallow_orv_get_library(uint32_t version);

#ifdef __cplusplus
}
#endif
