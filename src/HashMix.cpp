#include <Kelvo/HashMixCpp.h>

namespace Kelvo {
namespace Impl {

template <typename T>
HashMix<T>& HashMix<T>::mix(const void* data, size_t length) noexcept {
    return mixInline(data, length);
}

template class HashMix<uint32_t>;
template class HashMix<uint64_t>;

}  // namespace Impl

namespace Util {

uint32_t hash(const String& text) noexcept {
    return Impl::HashMix<uint32_t>().mixInline(text.data(), text.size()).value();
}
uint32_t hash(const void* data, unsigned length) noexcept {
    return Impl::HashMix<uint32_t>().mixInline(data, length).value();
}
uint64_t hash64(const String& text) noexcept {
    return Impl::HashMix<uint64_t>().mixInline(text.data(), text.size()).value();
}
uint64_t hash64(const void* data, unsigned length) noexcept {
    return Impl::HashMix<uint64_t>().mixInline(data, length).value();
}

}  // namespace Util
}  // namespace Kelvo
