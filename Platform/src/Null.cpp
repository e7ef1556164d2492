// Null.cpp - the null singleton.
#include <qx/Null.h>

namespace qx {

Ref<Null> Null::null() {
    // Never destroyed: threads still at work while the process exits take copies.
    static const Ref<Null>* const instance = new Ref<Null>(std::make_shared<Null>());
    return *instance;
}

} // namespace qx
