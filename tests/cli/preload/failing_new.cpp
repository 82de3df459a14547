// Loaded into the aggtree binary with LD_PRELOAD by the out-of-memory tests: the first
// allocation of exactly AGGTREE_TEST_FAIL_NEW_OF_SIZE bytes throws std::bad_alloc, as if
// memory had run out at that moment.  Without the variable nothing fails.
#include <cstdlib>
#include <new>

namespace {

std::size_t SizeToFail() {
    static const std::size_t size = [] {
        const char* text = std::getenv("AGGTREE_TEST_FAIL_NEW_OF_SIZE");
        return text == nullptr ? std::size_t{0} : std::strtoull(text, nullptr, 10);
    }();
    return size;
}

bool g_failed = false;

}  // namespace

void* operator new(std::size_t size) {
    if (!g_failed && size != 0 && size == SizeToFail()) {
        g_failed = true;
        throw std::bad_alloc();
    }
    if (void* memory = std::malloc(size == 0 ? 1 : size)) {
        return memory;
    }
    throw std::bad_alloc();
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
