// SPDX-License-Identifier: Apache-2.0
// The little of the C++ run-time library that daemon and pluginctl call: memory, and the ends of
// checks that fail. With it here a board needs no libstdc++, and no process carries its 70 kB of
// private pages. Nothing throws; what would, aborts, as it would without these. A compiler that
// wants more finds it in libstdc++, which the linker then takes as well; weak, for in a static
// program it then meets these again there.
// Release builds only: the sanitizers and the tests bring their own.
#include <cstdlib>
#include <new>

namespace {

void* allocate(std::size_t size) noexcept {
    return malloc(size == 0 ? 1 : size);
}

}  // namespace

void* operator new(std::size_t size) {
    void* memory = allocate(size);
    if (memory == nullptr) {
        abort();
    }
    return memory;
}

void* operator new(std::size_t size, const std::nothrow_t& /*unused*/) noexcept {
    return allocate(size);
}

void operator delete(void* memory) noexcept {
    free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept {
    free(memory);
}

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl58-cpp,cert-dcl50-cpp)
namespace std {

__attribute__((weak)) void __throw_bad_alloc() {
    abort();
}

__attribute__((weak)) void __throw_bad_array_new_length() {
    abort();
}

__attribute__((weak)) void __throw_logic_error(const char* /*what*/) {
    abort();
}

__attribute__((weak)) void __throw_length_error(const char* /*what*/) {
    abort();
}

__attribute__((weak)) void __throw_out_of_range_fmt(const char* /*what*/, ...) {
    abort();
}

}  // namespace std
// NOLINTEND(bugprone-reserved-identifier,cert-dcl58-cpp,cert-dcl50-cpp)
