/// Access to the LEDs of a card group, in this layer's own numbering, with every step logged. Main thread; no state.
///
/// err_msg may be null.
#ifndef BRD_INTF_LED_H
#define BRD_INTF_LED_H

#include <cstddef>
#include <cstdint>

/// 0 stands for what the platform library gives and this layer does not know.
enum class LedState : std::uint32_t { unknown = 0, off = 1, steady = 2, blink = 3 };
enum class LedColor : std::uint32_t { unknown = 0, red = 1, green = 2, blue = 3, amber = 4, yellow = 5 };

/// Names as logs show them, quotes included. Static text.
const char *led_state_name(LedState state);
const char *led_color_name(LedColor color);

/// Prepares the group's LEDs. Always 0: a failure is told in err_msg alone.
int led_group_init(std::uint32_t group_id, char *err_msg, std::size_t err_len);
/// Finds the first status LED of the group. Returns 0, -ENOENT (none, or its id is 0; no text), -EINVAL, -ENOMEM, or
/// the platform library's code.
int led_status_obj_id_get(std::uint32_t group_id, std::uint32_t *obj_id, char *err_msg, std::size_t err_len);
/// Returns 0, -EINVAL for a null pointer, or -ENOSYS when the LED cannot be read.
int led_state_and_color_get(std::uint32_t group_id, std::uint32_t obj_id, LedState *state, LedColor *color,
                            char *err_msg, std::size_t err_len);
/// Returns 0, or -ENOSYS when the LED cannot be set.
int led_state_and_color_set(std::uint32_t group_id, std::uint32_t obj_id, LedState state, LedColor color, char *err_msg,
                            std::size_t err_len);

#endif
