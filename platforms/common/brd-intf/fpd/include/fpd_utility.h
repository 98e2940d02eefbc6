/// The FPD utility library: shell commands and checksums. Callable from any thread.
#ifndef FPD_UTILITY_H
#define FPD_UTILITY_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/// Formats a command line, runs it through the shell and waits for it.
/// `output` receives what it printed, cut to `output_size` and NUL-terminated, `*output_len` its length.
/// Returns 0 when the command ran and exited with 0, else a non-zero code with the reason in `err_msg`.
int exec_shell_command(char *output, size_t output_size, size_t *output_len, char *err_msg, size_t err_len,
                       const char *format, ...)
#ifdef __GNUC__
    __attribute__((format(printf, 6, 7)))
#endif
    ;

/// 0 when the MD5 sum of `directory`/`image` equals the hex text `md5`, else a non-zero code and a reason.
int brd_intf_fpd_image_md5_validate(const char *directory, const char *image, const char *md5, char *err_msg,
                                    size_t err_len);

#ifdef __cplusplus
}
#endif

#endif
