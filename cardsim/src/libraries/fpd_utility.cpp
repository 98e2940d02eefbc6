#include "fpd_utility.h"

#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "card.h"
#include "md5.h"
#include "shell.h"

using namespace cardsim;

namespace {

/// The command's output, cut to the caller's buffer, and its length there.
void write_output(const std::string &text, char *output, size_t size, size_t *length) {
    *length = std::min(text.size(), size - 1);
    std::memcpy(output, text.data(), *length);
    output[*length] = '\0';
}

}  // namespace

CARDSIM_EXPORT int exec_shell_command(char *output, size_t output_size, size_t *output_len, char *err_msg,
                                      size_t err_len, const char *format, ...) {
    Call call("exec_shell_command", Callers::AnyThread);
    require(call, output != nullptr && output_size > 0, "no room for the output");
    require(call, output_len != nullptr, "no place for the output's length");
    require_error_buffer(call, err_msg, err_len);
    require(call, format != nullptr, "no command");
    va_list values;
    va_start(values, format);
    const std::string command = formatted_list(format, values);
    va_end(values);
    require(call, !command.empty(), "no command");
    call.arguments = "command=" + quoted(command);
    const auto run = [&] {
        write_output("", output, output_size, output_len);
        const ShellResult result = run_shell(command, call.uncancelled);
        write_output(result.output, output, output_size, output_len);
        if (result.code != 0) {
            throw Error(result.reason, result.code);
        }
    };
    return call.answer(run, err_msg, err_len);
}

CARDSIM_EXPORT int brd_intf_fpd_image_md5_validate(const char *directory, const char *image, const char *md5,
                                                   char *err_msg, size_t err_len) {
    Call call("brd_intf_fpd_image_md5_validate", Callers::AnyThread);
    require(call, directory != nullptr && image != nullptr && md5 != nullptr, "a text is null");
    require_error_buffer(call, err_msg, err_len);
    call.arguments = "directory=" + quoted(directory) + " image=" + quoted(image) + " md5=" + quoted(md5);
    const auto compare = [&] {
        const std::filesystem::path file = std::filesystem::path(directory) / image;
        const std::string sum = md5_of_file(file);
        if (strcasecmp(sum.c_str(), md5) != 0) {
            throw Error(file.string() + ": its MD5 sum is " + sum + ", not '" + md5 + "'", EBADMSG);
        }
    };
    return call.answer(compare, err_msg, err_len);
}
