#include <Kelvo/ConstStringCache.h>

namespace Kelvo {

const String& ConstStringRef::emptyString() noexcept {
    static const String empty;
    return empty;
}

ConstStringCache::~ConstStringCache() {
    KELVO_ASSERTM(elems_.empty(), "Destroying ConstStringCache with open references");
}

ConstStringRef ConstStringCache::intern(std::string_view text) {
    if (text.empty()) {
        return ConstStringRef();
    }
    auto it = elems_.find(text);
    if (it == elems_.end()) {
        it = elems_.emplace(this, String(text)).first;
    }
    return ConstStringRef(&*it);
}

ConstStringRef ConstStringCache::find(std::string_view text) const {
    auto it = elems_.find(text);
    return it == elems_.end() ? ConstStringRef() : ConstStringRef(&*it);
}

void ConstStringCache::eraseElem(const Elem& elem) {
    auto it = elems_.find(elem);
    KELVO_ASSERTM(it != elems_.end() && &*it == &elem,
                  "element \"{}\" is not in this ConstStringCache", elem.str_);
    elems_.erase(it);
}

}  // namespace Kelvo
