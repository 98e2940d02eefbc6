#include "images.h"

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include "file_text.h"

namespace cardsim {
namespace {

// The sequences of std::seed_seq and std::mt19937_64 are fixed by the language: the same bytes on every machine.
std::mt19937_64 generator_for(const std::string &name) {
    std::seed_seq seed(name.begin(), name.end());
    return std::mt19937_64(seed);
}

void fill(std::vector<char> &block, std::mt19937_64 &generator) {
    for (std::size_t at = 0; at < block.size(); at += sizeof(uint64_t)) {
        const uint64_t word = generator();
        std::memcpy(block.data() + at, &word, sizeof word);
    }
}

}  // namespace

void write_image(const Descriptor &file, const std::filesystem::path &path, const std::string &name, uint64_t size) {
    const std::string head = "simulated firmware image " + name + "\n";
    const uint64_t head_size = std::min<uint64_t>(head.size(), size);
    write_all(file, path, std::string_view(head).substr(0, head_size));
    std::mt19937_64 generator = generator_for(name);
    std::vector<char> block(65536);
    for (uint64_t left = size - head_size; left > 0;) {
        fill(block, generator);
        const uint64_t part = std::min<uint64_t>(left, block.size());
        write_all(file, path, {block.data(), part});
        left -= part;
    }
}

}  // namespace cardsim
