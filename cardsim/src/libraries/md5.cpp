#include "md5.h"

#include <openssl/evp.h>

#include <cerrno>
#include <memory>

#include "file_text.h"

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

std::string md5_of_file(const std::filesystem::path &file) {
    const Descriptor source = open_to_read(file);
    const std::unique_ptr<EVP_MD_CTX, DigestDeleter> digest(EVP_MD_CTX_new());
    if (digest == nullptr || EVP_DigestInit_ex(digest.get(), EVP_md5(), nullptr) != 1) {
        throw Error("MD5 is not available", ENOTSUP);
    }
    read_pieces(source, file,
                [&](std::string_view piece) { EVP_DigestUpdate(digest.get(), piece.data(), piece.size()); });
    unsigned char bytes[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    EVP_DigestFinal_ex(digest.get(), bytes, &size);
    return hex_text(bytes, size);
}

}  // namespace cardsim
