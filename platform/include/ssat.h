/* Debug-command framework. A handler is called with exactly as many int
 * arguments as its description has %d conversions, so it is registered through
 * the generic pointer type and called back with its own type. */
#ifndef SSAT_H
#define SSAT_H

#ifdef __cplusplus
extern "C" {
#endif

typedef int (*ssat_cmd_fn)(void);

int ssat_lib_init(void *handle, const char *module);
int ssat_reg_mod_cmd(const char *module, const char *cmd, int flags, const char *desc,
                     ssat_cmd_fn handler);

#ifdef __cplusplus
}
#endif

#endif
