/// Facts about the card from the bootstrap key file "/dev/kd_bootstrap", lines of the form KEY=value.
///
/// Each call reads the file anew, and waits up to 3 s for it to open. Results: 0, -ENOSYS (no such file), -E2BIG (a
/// line too long before the wanted one), -ENOENT (no such key), or as told per reader. Main thread.
#ifndef BRD_INTF_AUTO_FPD_BOOTSTRAP_H
#define BRD_INTF_AUTO_FPD_BOOTSTRAP_H

#include <cstddef>
#include <cstdint>

/// Room for any value, with its NUL.
inline constexpr std::size_t bootstrap_field_size = 254;

/// Copies the value of `key` into value_out, a buffer of bootstrap_field_size bytes.
int bootstrap_field_get(const char *key, char *value_out);
/// The board type; text that is no number gives 0. -EINVAL for a null pointer.
int bootstrap_card_type_get(std::uint32_t *card_type);
/// The hardware version. -EINVAL for a null pointer or a text that is not wholly a number; *major is stored before the
/// minor version is looked at.
int bootstrap_hw_version_get(std::uint32_t *major, std::uint32_t *minor);
/// The slot; text that is no number gives 0.
int bootstrap_slot_num_get(std::uint32_t *slot);
/// The product identifier, cut to *pid_len bytes with its NUL. *pid_len comes back as 0, not as the text's length.
int bootstrap_card_pid_get(char *pid, std::size_t *pid_len);

#endif
