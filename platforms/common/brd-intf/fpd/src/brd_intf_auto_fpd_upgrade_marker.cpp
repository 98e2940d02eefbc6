#include "brd_intf_auto_fpd_upgrade_marker.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "fpd_log.h"
#include "os_file.h"

namespace {

constexpr LogModule here{"FPD", __FILE__};

constexpr const char *marker_directory = "/misc/scratch";
constexpr const char *marker_file = "/misc/scratch/bootup_fpd_marker.txt";
constexpr const char *entry_format = "FPD: %-16s | Version: %-12s\n";
// In the place of the first character of a marker that is not whole: no entry begins with it.
constexpr std::string_view unfinished_mark = "#";
// In entries of the minimal width: two to begin with, and one at a time.
constexpr std::size_t first_capacity = 96;
constexpr std::size_t capacity_step = 48;
constexpr std::size_t free_at_least = 49;

UpgradeMarker marker;

int first_room(char *err_msg, std::size_t err_len) {
    marker.text = static_cast<char *>(std::calloc(1, first_capacity));
    if (!marker.text)
        return fail({here, "UpgMarkerCallocFail"}, -ENOMEM, err_msg, err_len,
                    "Unable to allocate memory for upgrade marker, error %s", std::strerror(errno));
    marker.capacity = first_capacity;
    return 0;
}

int more_room(char *err_msg, std::size_t err_len) {
    char *const grown = static_cast<char *>(std::realloc(marker.text, marker.capacity + capacity_step));
    if (!grown) {
        const int error = errno;
        upg_marker_release();
        return fail({here, "UpgMarkerReallocFail"}, -ENOMEM, err_msg, err_len,
                    "Unable to allocate memory for upgrade marker, error %s", std::strerror(error));
    }
    marker.text = grown;
    marker.capacity += capacity_step;
    return 0;
}

int ensure_room(char *err_msg, std::size_t err_len) {
    if (!marker.text) return first_room(err_msg, err_len);
    // Once an entry did not fit there is no room to speak of, and growing would not mend the text.
    if (marker.length >= marker.capacity) return 0;
    return marker.capacity - marker.length < free_at_least ? more_room(err_msg, err_len) : 0;
}

std::size_t room() {
    return marker.capacity - std::min(marker.capacity, marker.length);
}

const char *marker_text() {
    return marker.text ? marker.text : "";
}

int access_error(int error, char *err_msg, std::size_t err_len) {
    return fail_unlogged(-error, err_msg, err_len, "Marker File %s access error %s", marker_file, std::strerror(error));
}

/// Reads `size` bytes of the marker file as text.
int read_text(std::FILE *file, std::size_t size, Allocated<char> &text, char *err_msg, std::size_t err_len) {
    text.reset(static_cast<char *>(std::malloc(size + 1)));
    if (!text) {
        const int error = errno;
        return fail_unlogged(-error, err_msg, err_len, "malloc() failed size %ld, error %s", static_cast<long>(size),
                             std::strerror(error));
    }
    const std::size_t count = read_bytes(file, text.get(), size);
    const int stream_error = std::ferror(file);
    if (count != static_cast<std::uint32_t>(size)) {
        text.reset();
        return fail_unlogged(-stream_error, err_msg, err_len, "Failed to read marker data, error %d", stream_error);
    }
    text.get()[size] = '\0';
    return 0;
}

bool write_to_storage(std::FILE *file, std::string_view text) {
    return write_bytes(file, text) && sync_to_storage(fileno(file));
}

/// A power cut between two entries must not leave the marker of a smaller plan, whose upgrade would then be skipped at
/// every boot. So the first character, with which every plan begins, comes last: whatever reaches the storage without
/// it, and in whatever order, is the marker of no plan.
bool write_text(File file, std::string_view text) {
    const bool prepared =
        write_bytes(file.get(), unfinished_mark) && write_to_storage(file.get(), text.substr(unfinished_mark.size()));
    const bool written = prepared && std::fseek(file.get(), 0, SEEK_SET) == 0 &&
                         write_to_storage(file.get(), text.substr(0, unfinished_mark.size()));
    const bool closed = std::fclose(file.release()) == 0 || errno == EINTR;
    return closed && written;
}

/// The file is new in its directory, which has to last as well.
void sync_directory() {
    const Descriptor directory(
        uninterrupted([] { return open(marker_directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    if (directory.fd >= 0) sync_to_storage(directory.fd);
}

}  // namespace

UpgradeMarker &upg_marker() {
    return marker;
}

int upg_marker_add_fpd(const Fpd &fpd, char *err_msg, std::size_t err_len) {
    clear_error(err_msg, err_len);
    const int rc = ensure_room(err_msg, err_len);
    if (rc != 0) return rc;
    const std::size_t room_left = room();
    const int count = std::snprintf(room_left ? marker.text + marker.length : nullptr, room_left, entry_format,
                                    fpd.info.name, fpd.packaged_text);
    marker.length += static_cast<std::size_t>(count);
    if (marker.length >= marker.capacity)
        return fail({here, "AddFpdInfoUpgMarkerOOB"}, -ENOBUFS, err_msg, err_len,
                    "Out of buffer to add FPD info for %s", fpd.info.name);
    return 0;
}

int upg_marker_check(bool *same, char *err_msg, std::size_t err_len) {
    clear_error(err_msg, err_len);
    *same = true;
    if (access(marker_file, R_OK) != 0) {
        const int error = errno;
        *same = error != ENOENT;
        if (error == ENOENT) return 0;
        return fail_unlogged(-error, err_msg, err_len, "Upgrade marker file %s doesn't exist, error %s", marker_file,
                             std::strerror(error));
    }
    struct stat status;
    if (stat(marker_file, &status) != 0) return access_error(errno, err_msg, err_len);
    const File file = open_to_read(marker_file);
    if (!file) return access_error(errno, err_msg, err_len);
    if (status.st_size == 0) {
        *same = false;
        return 0;
    }
    Allocated<char> text;
    const int rc = read_text(file.get(), static_cast<std::size_t>(status.st_size), text, err_msg, err_len);
    if (rc != 0 || !text) return rc;
    log_info({here, "UpgMarkerCheck"}, "Previous Marked FPDs to Upgrade\n%s\nCurren Upgrading FPDs\n%s", text.get(),
             marker_text());
    *same = std::strcmp(text.get(), marker_text()) == 0;
    return 0;
}

int upg_marker_write(char *err_msg, std::size_t err_len) {
    clear_error(err_msg, err_len);
    if (marker.length == 0) return 0;
    File file = open_to_write(marker_file, "w+");
    if (!file) {
        const int error = errno;
        return fail_unlogged(-error, err_msg, err_len, "Unable to open the Upgrade marker file %s, error %s",
                             marker_file, std::strerror(error));
    }
    log_debug({here, "WriteUpgMarkerData"}, "Writing Upgrade Marker Data\n%s", marker.text);
    const bool whole = marker.length < marker.capacity;
    if (!whole || !write_text(std::move(file), {marker.text, marker.length}))
        return fail_unlogged(-EIO, err_msg, err_len, "Failed to write Upgrade marker data\n%s", marker.text);
    sync_directory();
    upg_marker_release();
    return 0;
}

int upg_marker_delete(char *err_msg, std::size_t err_len) {
    clear_error(err_msg, err_len);
    if (unlink(marker_file) == 0) {
        // Come back after a power cut, it could be that of the next plan, of which only a part was carried out.
        sync_directory();
        return 0;
    }
    if (errno == ENOENT) return 0;
    const int error = errno;
    return fail_unlogged(-error, err_msg, err_len, "Unable to remove Upgrade Marker file %s, error %s", marker_file,
                         std::strerror(error));
}

void upg_marker_release() {
    std::free(marker.text);
    marker = {};
}
