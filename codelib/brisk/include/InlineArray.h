// InlineArray<T, N>: the toolkit's growable array of plain values that keeps
// its first N elements inside its owner, so that a small array allocates
// nothing.
//
// Past N elements the storage moves to the heap with the capacity that
// CapacityFor gives: for n elements of e bytes, the smallest power of two not
// below n + 4096/e - 1 while (n - 1) * e is below 128 MiB, and n + 128 MiB/e - 1
// beyond that. Removing elements shrinks the storage to that capacity when it
// is smaller than the current one, and back into the owner once N suffice.
//
// Insert reports a failed allocation by false and leaves the array unchanged.
// Not thread-safe: the owner guards it.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <type_traits>

template <typename T, int32_t N>
class InlineArray {
  static_assert(std::is_trivially_copyable_v<T>, "elements are moved by memcpy");
  static_assert(N > 0, "at least one element inside the owner");

 public:
  InlineArray() = default;
  ~InlineArray() { Release(); }
  InlineArray(const InlineArray&) = delete;
  InlineArray& operator=(const InlineArray&) = delete;

  int32_t Size() const { return size_; }
  int32_t Capacity() const { return capacity_; }
  bool IsInline() const { return data_ == inline_; }
  T& operator[](int32_t i) { return data_[i]; }
  const T& operator[](int32_t i) const { return data_[i]; }
  T& Back() { return data_[size_ - 1]; }

  // Inserts `value` before position `pos` (0..Size()).
  bool Insert(int32_t pos, const T& value) {
    if (pos < 0 || pos > size_) return false;
    if (size_ == capacity_ && !Reallocate(CapacityFor(size_ + 1))) return false;
    std::memmove(data_ + pos + 1, data_ + pos, sizeof(T) * static_cast<size_t>(size_ - pos));
    data_[pos] = value;
    ++size_;
    return true;
  }
  bool Append(const T& value) { return Insert(size_, value); }

  // Removes the element at `pos` (0..Size()-1).
  void Erase(int32_t pos) {
    if (pos < 0 || pos >= size_) return;
    std::memmove(data_ + pos, data_ + pos + 1, sizeof(T) * static_cast<size_t>(size_ - pos - 1));
    --size_;
    if (IsInline()) return;
    if (size_ <= N) {
      Reallocate(N);
    } else if (CapacityFor(size_) < capacity_) {
      Reallocate(CapacityFor(size_));
    }
  }

  // Empties the array and gives back any heap storage.
  void Clear() {
    size_ = 0;
    Release();
  }

  // The heap capacity for `n` elements of this type.
  static int32_t CapacityFor(int32_t n) {
    constexpr int64_t kBig = 0x8000000;
    constexpr int64_t e = static_cast<int64_t>(sizeof(T));
    if ((static_cast<int64_t>(n) - 1) * e >= kBig) return static_cast<int32_t>(n + kBig / e - 1);
    const int64_t target = n + 4096 / e - 1;
    int64_t c = 1;
    while (c < target) c <<= 1;
    return static_cast<int32_t>(c);
  }

 private:
  // Moves the elements to storage of `capacity` (N means inside the owner).
  bool Reallocate(int32_t capacity) {
    T* fresh = inline_;
    if (capacity > N) {
      fresh = static_cast<T*>(std::malloc(sizeof(T) * static_cast<size_t>(capacity)));
      if (fresh == nullptr) return false;
    } else {
      capacity = N;
    }
    if (fresh == data_) return true;
    std::memcpy(fresh, data_, sizeof(T) * static_cast<size_t>(size_));
    if (!IsInline()) std::free(data_);
    data_ = fresh;
    capacity_ = capacity;
    return true;
  }

  void Release() {
    if (!IsInline()) std::free(data_);
    data_ = inline_;
    capacity_ = N;
  }

  T inline_[N];
  T* data_ = inline_;
  int32_t size_ = 0;
  int32_t capacity_ = N;
};
