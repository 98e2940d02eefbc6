#include "md5.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "file_owner.h"

namespace cardsim {

namespace {

struct DigestDeleter {
    void operator()(EVP_MD_CTX *context) const { EVP_MD_CTX_free(context); }
};

std::string hex_text(const unsigned char *bytes, unsigned int size) {
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (unsigned int index = 0; index < size; ++index) {
        text += digits[bytes[index] >> 4];
        text += digits[bytes[index] & 0xf];
    }
    return text;
}

}  // namespace

int md5_of_file(const std::filesystem::path &file, std::string &sum, std::string &error) {
    const FileOwner source(open(file.c_str(), O_RDONLY | O_CLOEXEC));
    const std::unique_ptr<EVP_MD_CTX, DigestDeleter> digest(EVP_MD_CTX_new());
    if (digest == nullptr || EVP_DigestInit_ex(digest.get(), EVP_md5(), nullptr) != 1) {
        error = "MD5 is not available";
        return ENOTSUP;
    }
    std::vector<char> chunk(size_t{1} << 16);
    ssize_t count = source.handle < 0 ? -1 : read(source.handle, chunk.data(), chunk.size());
    while (count > 0) {
        EVP_DigestUpdate(digest.get(), chunk.data(), static_cast<size_t>(count));
        count = read(source.handle, chunk.data(), chunk.size());
    }
    if (count < 0) {
        const int reason = errno;
        error = file.string() + ": cannot be read: " + std::strerror(reason);
        return reason;
    }
    unsigned char bytes[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    EVP_DigestFinal_ex(digest.get(), bytes, &size);
    sum = hex_text(bytes, size);
    return 0;
}

}  // namespace cardsim
