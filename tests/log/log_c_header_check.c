/* Compiled as C: the log header is a C interface. */
#include "pavo_log.h"

int pavo_log_c_header_check(void) {
  char list[PAVO_LOG_MODULES_LIST_SIZE];
  PavoLogType type = PAVO_LOG_TYPE_MAX;
  pavo_log_print(type, "C_MODULE", __FILE__, __func__, __LINE__, 0, 0);
  pavo_log("C_MODULE", __FILE__, __func__, __LINE__, "%d\n", 1);
  (void)g_modules_info[PAVO_LOG_CONTROL_LEVEL_OFFSET];
  (void)get_modules_list(list);
  return pavo_log_getLevel("C_MODULE");
}
