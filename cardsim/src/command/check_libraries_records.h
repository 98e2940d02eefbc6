/// The memory that a call of a closed library is given: of the exact size, so that what is written beyond is seen.
#ifndef CARDSIM_CHECK_LIBRARIES_RECORDS_H
#define CARDSIM_CHECK_LIBRARIES_RECORDS_H

#include <cstddef>
#include <string>
#include <vector>

namespace cardsim {

/// The records of one call. Each ends where a page ends that nobody may touch, with another such page in front; what
/// lies between that page and the record has a pattern. Gone with this object.
class Records {
  public:
    Records() = default;
    ~Records();
    Records(const Records &) = delete;
    Records &operator=(const Records &) = delete;

    /// Zeroed room for `count` of T; `name` is what a complaint calls it. Its address is a multiple of T's alignment if
    /// its size is.
    template <class T>
    T *make(const char *name, std::size_t count = 1) {
        return static_cast<T *>(room(name, count * sizeof(T)));
    }

    /// What was written before a record; empty: nothing.
    std::string damage() const;

    struct Place {
        const char *name;
        unsigned char *pages;  // mapped; the first and the last are not to be touched
        std::size_t size;      // of all pages
        unsigned char *begin;  // of the record
        unsigned char *end;
    };

  private:
    void *room(const char *name, std::size_t size);
    std::vector<Place> places_;
};

/// From now on an access to such a page ends the process, after a Kind::damage message to `report`. Other faults of
/// memory end it as ever.
void watch_records(int report);

/// Whether every byte of a text of `size` is used, and none of them ends it.
bool is_without_end(const char *text, std::size_t size);

}  // namespace cardsim

#endif
