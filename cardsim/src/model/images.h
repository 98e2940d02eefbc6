/// Firmware images for cards that bring none of their own.
#ifndef CARDSIM_IMAGES_H
#define CARDSIM_IMAGES_H

#include <cstdint>
#include <filesystem>
#include <string>

#include "descriptor.h"

namespace cardsim {

/// Writes a made-up image of `size` bytes to an open file, which is `path` in reasons: a readable head, then bytes that
/// depend on `name` alone, so that an image has one and the same MD5 sum wherever it is made. Throws Error.
void write_image(const Descriptor &file, const std::filesystem::path &path, const std::string &name, uint64_t size);

}  // namespace cardsim

#endif
