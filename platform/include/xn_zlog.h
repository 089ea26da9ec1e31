/* Platform logging: categories, leveled records and a bounded formatter. */
#ifndef XN_ZLOG_H
#define XN_ZLOG_H

#include <stdarg.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    XN_ZLOG_INFO = 40,
    XN_ZLOG_NOTICE = 60,
    XN_ZLOG_WARN = 80,
    XN_ZLOG_ERROR = 100,
    XN_ZLOG_FATAL = 120,
};

/* Returns the category, or NULL when it cannot be created. */
void *xn_zlog_init(const char *category);
void xndf_zlog(void *category, const char *file, size_t filelen, const char *func, size_t funclen,
               long line, int level, const char *format, ...) __attribute__((format(printf, 8, 9)));

int at_snprintf(char *buf, size_t size, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
int at_vsnprintf(char *buf, size_t size, const char *format, va_list ap)
    __attribute__((format(printf, 3, 0)));

#ifdef __cplusplus
}
#endif

#endif
