/// Firmware images for cards that bring none of their own.
#ifndef CARDSIM_IMAGES_H
#define CARDSIM_IMAGES_H

#include <cstdint>
#include <filesystem>
#include <string>

namespace cardsim {

/// Writes a made-up image of `size` bytes: a readable head, then bytes that depend on `name` alone, so that an
/// image has one and the same MD5 sum wherever it is made. Throws std::runtime_error naming the file.
void write_image(const std::filesystem::path &path, const std::string &name, uint64_t size);

}  // namespace cardsim

#endif
