/*
 * A machine-identity library, as small as one can be, to begin one's own from. It protects nothing:
 * its passwords count up, and it forgets everything when the service ends.
 *
 *     cc -shared -fPIC -I/usr/include/tallow -o example-orv.so example-orv.c
 */

#include <stdlib.h>
#include <string.h>

#include "tallow-orv.h"

struct example {
  void (*log)(int32_t level, const char* line);
  int provisioned; /* for every DSID alike */
  uint32_t passwords;
  uint32_t open_sessions;
};

static int32_t example_open(const struct tallow_orv_host* host, void** self) {
  struct example* example = calloc(1, sizeof(*example));
  if (example == NULL) return -1;
  example->log = host->log;
  example->log(3, "The example library is open");
  *self = example;
  return TALLOW_ORV_SUCCESS;
}

static void example_close(void* self) { free(self); }

static void example_release(void* self, uint8_t* buffer) {
  (void)self;
  free(buffer);
}

static void hand_out(const void* bytes, uint32_t count, uint8_t** buffer, uint32_t* length) {
  *buffer = malloc(count);
  if (*buffer == NULL) return;
  memcpy(*buffer, bytes, count);
  *length = count;
}

static int32_t example_request_password(void* self, uint64_t dsid, uint8_t** machine_identifier,
                                        uint32_t* machine_identifier_length, uint8_t** password,
                                        uint32_t* password_length) {
  struct example* example = self;
  if (!example->provisioned) return TALLOW_ORV_NOT_PROVISIONED;
  example->passwords++;
  hand_out(&dsid, sizeof(dsid), machine_identifier, machine_identifier_length);
  hand_out(&example->passwords, sizeof(example->passwords), password, password_length);
  return TALLOW_ORV_SUCCESS;
}

static int32_t example_password_is_at_hand(void* self, uint64_t dsid) {
  (void)self, (void)dsid;
  return 1;
}

static int32_t example_reset_provisioning(void* self, uint64_t dsid) {
  struct example* example = self;
  (void)dsid;
  example->provisioned = 0;
  return TALLOW_ORV_SUCCESS;
}

static int32_t example_start_provisioning(void* self, uint64_t dsid, const uint8_t* data,
                                          uint32_t data_length, uint8_t** client_data,
                                          uint32_t* client_data_length, uint32_t* session) {
  struct example* example = self;
  (void)dsid;
  if (data_length == 0) return -2;
  hand_out(data, data_length, client_data, client_data_length); /* an echo */
  *session = ++example->open_sessions;
  return TALLOW_ORV_SUCCESS;
}

static int32_t example_finish_provisioning(void* self, uint32_t session,
                                           const uint8_t* setting_info,
                                           uint32_t setting_info_length,
                                           const uint8_t* transport_key,
                                           uint32_t transport_key_length) {
  struct example* example = self;
  (void)session, (void)setting_info, (void)setting_info_length;
  (void)transport_key, (void)transport_key_length;
  example->provisioned = 1;
  return TALLOW_ORV_SUCCESS;
}

static void example_end_session(void* self, uint32_t session) {
  struct example* example = self;
  (void)session;
  example->open_sessions--;
}

static int32_t example_synchronize_machine(void* self, uint64_t dsid, const uint8_t* data,
                                           uint32_t data_length, uint8_t** machine_identifier,
                                           uint32_t* machine_identifier_length,
                                           uint8_t** client_data, uint32_t* client_data_length) {
  struct example* example = self;
  if (!example->provisioned) return TALLOW_ORV_NOT_PROVISIONED;
  hand_out(&dsid, sizeof(dsid), machine_identifier, machine_identifier_length);
  if (data_length > 0) hand_out(data, data_length, client_data, client_data_length);
  return TALLOW_ORV_SUCCESS;
}

const struct tallow_orv_library* tallow_orv_get_library(uint32_t version) {
  static const struct tallow_orv_library library = {
      .version = TALLOW_ORV_VERSION,
      .name = "Example",
      .open = example_open,
      .close = example_close,
      .release = example_release,
      .request_password = example_request_password,
      .reset_provisioning = example_reset_provisioning,
      .start_provisioning = example_start_provisioning,
      .finish_provisioning = example_finish_provisioning,
      .end_session = example_end_session,
      .synchronize_machine = example_synchronize_machine,
      .password_is_at_hand = example_password_is_at_hand,
      .list_provisioned = NULL,
  };
  return version >= 1 ? &library : NULL;
}
