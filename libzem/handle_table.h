// SPDX-License-Identifier: Apache-2.0
// Handles that are numbers: a place in a table, and how often the place was used.
#pragma once

#include <cstdint>
#include <limits>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace zem::boundary {

// The objects that have a handle. Handle is a pointer type; its value is
//
//   bits 0 to 7     the kind, above 0, which tells tables apart
//   bits 8 to 31    the place
//   bits 32 to 63   the place's generation, which each removal raises
//
// so a handle never finds another object than the one it was given for: a place that is out of
// generations is used no more. Any thread.
template <typename Object, typename Handle, uint8_t kind>
class HandleTable {
 public:
  // Throws std::bad_alloc, also when all places are taken.
  Handle insert(std::shared_ptr<Object> object) {
    const std::lock_guard lock(mutex_);
    if (free_.empty()) addPlace();
    const uint32_t place = free_.back();
    places_[place].object = std::move(object);
    free_.pop_back();
    return handleOf(place);
  }

  // Null unless the table has an object with this handle.
  std::shared_ptr<Object> find(Handle handle) const {
    const std::lock_guard lock(mutex_);
    const size_t place = placeOf(handle);
    return place < places_.size() ? places_[place].object : nullptr;
  }

  // Takes the object out; the handle finds nothing from then on. Null like find().
  std::shared_ptr<Object> remove(Handle handle) {
    const std::lock_guard lock(mutex_);
    const size_t place = placeOf(handle);
    if (place >= places_.size()) return nullptr;
    std::shared_ptr<Object> object = std::exchange(places_[place].object, nullptr);
    freePlace(place);
    return object;
  }

  // Around a fork, in this order: lock() in front of it, then unlock() in the parent and forget()
  // in the child. There all handles find nothing, and their objects, whose threads are gone, stay
  // untouched as long as the table lives.
  void lock() { mutex_.lock(); }
  void unlock() { mutex_.unlock(); }
  void forget() {
    for (size_t place = 0; place < places_.size(); ++place) {
      if (places_[place].object == nullptr) continue;
      lost_.push_back(std::move(places_[place].object));
      freePlace(place);
    }
    mutex_.unlock();
  }

 private:
  struct Place {
    std::shared_ptr<Object> object;
    uint32_t generation = 0;
  };
  static constexpr size_t kNoPlace = std::numeric_limits<size_t>::max();
  static constexpr size_t kMostPlaces = size_t{1} << 24;

  void addPlace() {
    if (places_.size() == kMostPlaces) throw std::bad_alloc();
    free_.reserve(places_.size() + 1);  // remove() takes no memory
    places_.emplace_back();
    free_.push_back(static_cast<uint32_t>(places_.size() - 1));
  }

  void freePlace(size_t place) {
    if (++places_[place].generation != 0) free_.push_back(static_cast<uint32_t>(place));
  }

  Handle handleOf(uint32_t place) const {
    const uint64_t number =
        uint64_t{places_[place].generation} << 32U | uint64_t{place} << 8U | kind;
    return reinterpret_cast<Handle>(number);  // NOLINT(performance-no-int-to-ptr): a number
  }

  size_t placeOf(Handle handle) const {
    const auto number = reinterpret_cast<uint64_t>(handle);
    const size_t place = number >> 8U & (kMostPlaces - 1);
    if ((number & 0xFFU) != kind || place >= places_.size()) return kNoPlace;
    const Place& found = places_[place];
    return found.object != nullptr && found.generation == number >> 32U ? place : kNoPlace;
  }

  mutable std::mutex mutex_;
  std::vector<Place> places_;
  std::vector<uint32_t> free_;
  std::vector<std::shared_ptr<Object>> lost_;  // in a child: its parent's
};

}  // namespace zem::boundary
