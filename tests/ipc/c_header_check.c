/* Compiled as C: the transport's public header is a C interface. */
#include "pavo_ipc.h"

int pavo_ipc_header_is_c(void) {
  pavo_ipc_msg message = {0, 0};
  pavo_ipc_server_callback callback = 0;
  return callback == 0 && message.len == 0 && PAVO_IPC_MAX_MESSAGE == 16384 &&
         PAVO_IPC_FRAME_BUFFER_SIZE(0) == sizeof(long) + 32;
}
