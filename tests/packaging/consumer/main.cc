// Calls the installed library: creates and releases a transport client.
#include <cstdio>

#include "pavo_ipc.h"

int main() {
  pavo_ipc_client* client = nullptr;
  if (pavo_ipc_client_create(0x5a5a0000, 1, 1, 1024, &client) != 0 || client == nullptr) {
    std::fprintf(stderr, "pavo_ipc_client_create failed\n");
    return 1;
  }
  if (pavo_ipc_client_destroy(client) != 0) return 1;
  std::printf("consumer: the installed library works\n");
  return 0;
}
