// Null.cpp - the null singleton.
#include <qx/Null.h>

namespace qx {

Ref<Null> Null::null() {
    static const Ref<Null> instance = std::make_shared<Null>();
    return instance;
}

} // namespace qx
