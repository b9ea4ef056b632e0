/* Compiled as C: the transport's public header is a C interface. */
#include "pavo_ipc.h"

static pavo_ipc_msg* no_reply(pavo_ipc_msg* message, void* user_data) {
  (void)message;
  (void)user_data;
  return 0;
}

int pavo_ipc_header_is_c(void) {
  pavo_ipc_server_callback callback = no_reply;
  pavo_ipc_msg message = {0, 0};
  return callback(&message, 0) == 0 && PAVO_IPC_MAX_MESSAGE == 16384;
}
