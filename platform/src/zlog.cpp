// Logging: categories, leveled lines kept for the host to inspect, and the
// bounded formatter. The stand-in keeps every line regardless of level: the
// module does its own level gating before it calls us.
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include "platform_state.h"
#include "xn_zlog.h"

namespace {

int g_log_fd = -1;

const char *level_word(int level) {
    switch (level) {
        case XN_ZLOG_INFO:
            return "INFO";
        case XN_ZLOG_NOTICE:
            return "NOTICE";
        case XN_ZLOG_WARN:
            return "WARN";
        case XN_ZLOG_ERROR:
            return "ERROR";
        case XN_ZLOG_FATAL:
            return "FATAL";
        default:
            return "LEVEL";
    }
}

std::string bounded(const char *s, size_t len) {
    if (s == nullptr) return {};
    return std::string(s, strnlen(s, len));
}

std::string vformat(const char *format, va_list ap) {
    va_list copy;
    va_copy(copy, ap);
    int n = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    if (n <= 0) return {};
    std::string out(static_cast<size_t>(n) + 1, '\0');
    std::vsnprintf(out.data(), out.size(), format, ap);
    out.resize(static_cast<size_t>(n));
    return out;
}

void write_all(int fd, const std::string &s) {
    size_t off = 0;
    while (off < s.size()) {
        ssize_t n = write(fd, s.data() + off, s.size() - off);
        if (n <= 0) return;  // a log that cannot be written is not worth failing over
        off += static_cast<size_t>(n);
    }
}

}  // namespace

extern "C" {

void *xn_zlog_init(const char *category) {
    if (platform::fault("xn_zlog_init")) return nullptr;
    // One category per name: a process that starts its module again and again
    // gets the same one back instead of a new one each time.
    auto &cats = platform::st().categories;
    const std::string name = category != nullptr ? category : "";
    for (std::string &c : cats) {
        if (c == name) return &c;
    }
    cats.push_back(name);
    return &cats.back();
}

void xndf_zlog(void *category, const char *file, size_t filelen, const char *func, size_t funclen,
               long line, int level, const char *format, ...) {
    if (platform::fault("xndf_zlog")) return;
    if (category == nullptr || format == nullptr) return;
    va_list ap;
    va_start(ap, format);
    // The module hands over every line already formatted, as "%s" and its
    // buffer: that needs no formatting pass of ours (glibc prints a null
    // string as "(null)").
    std::string text;
    if (std::strcmp(format, "%s") == 0) {
        const char *s = va_arg(ap, const char *);
        text = s != nullptr ? s : "(null)";
    } else {
        text = vformat(format, ap);
    }
    va_end(ap);
    platform::LogLine l{level, bounded(file, filelen), bounded(func, funclen), line,
                        std::move(text)};
    if (g_log_fd >= 0) {
        write_all(g_log_fd, std::string(level_word(level)) + " " + l.func + ":" +
                                std::to_string(line) + " " + l.text + "\n");
    }
    platform::st().log.push_back(std::move(l));
}

int at_vsnprintf(char *buf, size_t size, const char *format, va_list ap) {
    if (auto rv = platform::fault("at_vsnprintf")) return *rv;
    return std::vsnprintf(buf, size, format, ap);
}

int at_snprintf(char *buf, size_t size, const char *format, ...) {
    if (auto rv = platform::fault("at_snprintf")) return *rv;
    va_list ap;
    va_start(ap, format);
    int n = std::vsnprintf(buf, size, format, ap);
    va_end(ap);
    return n;
}

}  // extern "C"

namespace platform {

std::vector<LogLine> take_log() {
    std::vector<LogLine> out;
    out.swap(platform::st().log);
    return out;
}

void set_log_fd(int fd) {
    g_log_fd = fd;
}

}  // namespace platform
