/// Leaves the upgrade tool's message queue behind as a crashed run would: small, and with reports of a worker that is
/// gone.

#include <mqueue.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

constexpr const char *name = "/auto_fpd_upg_mq_localcard";
constexpr std::uint32_t magic = 0xA670F9D4;
constexpr std::uint64_t gone_worker = 0x10;
constexpr std::uint32_t done = 19;

std::array<char, 24> report() {
    std::array<char, 24> bytes{};
    const std::uint32_t progress = 100;
    std::memcpy(bytes.data(), &magic, sizeof magic);
    std::memcpy(bytes.data() + 8, &gone_worker, sizeof gone_worker);
    std::memcpy(bytes.data() + 16, &progress, sizeof progress);
    std::memcpy(bytes.data() + 20, &done, sizeof done);
    return bytes;
}

}  // namespace

int main() {
    mq_attr attributes{};
    attributes.mq_maxmsg = 2;
    attributes.mq_msgsize = 24;
    const mqd_t queue = mq_open(name, O_WRONLY | O_CREAT | O_EXCL, 0600, &attributes);
    if (queue < 0) {
        std::perror("mq_open");
        return 1;
    }
    const std::array<char, 24> bytes = report();
    for (long sent = 0; sent < attributes.mq_maxmsg; ++sent) {
        if (mq_send(queue, bytes.data(), bytes.size(), 0) != 0) {
            std::perror("mq_send");
            return 1;
        }
    }
    return mq_close(queue);
}
