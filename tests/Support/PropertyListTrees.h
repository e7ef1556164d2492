// PropertyListTrees.h - random plain property-list values for the tree and search suites.
#pragma once

#include <qx/Array.h>
#include <qx/Data.h>
#include <qx/Date.h>
#include <qx/Dictionary.h>
#include <qx/Number.h>
#include <qx/String.h>

#include <QXFoundation/QXPropertyList.h>

#include <random>
#include <string>

namespace plisttree {

/// Words the leaves and keys are drawn from, so that searches hit several nodes.
inline const char* const kWords[] = {"alpha", "Beta", "gamma", "delta", "alphabet", "zeta", "x1", "caf\xC3\xA9"};

/// A random value: containers down to depth, leaves of every kind.
inline qx::Ref<qx::Object> randomValue(std::mt19937& rng, int depth) {
    auto pick = [&rng](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
    const int kind = depth > 0 ? pick(8) : 2 + pick(6);
    switch (kind) {
    case 0: {
        auto a = qx::Array::create();
        for (int i = pick(4); i > 0; --i) a->addObject(randomValue(rng, depth - 1));
        return a;
    }
    case 1: {
        auto d = qx::Dictionary::create();
        for (int i = pick(4); i > 0; --i) d->setObject(randomValue(rng, depth - 1), kWords[pick(8)] + std::to_string(pick(3)));
        return d;
    }
    case 2: return qx::str(kWords[pick(8)]);
    case 3: return qx::Number::withInt64(pick(1000));
    case 4: return qx::Number::withBool(pick(2) == 1);
    case 5: return qx::Data::withString(kWords[pick(8)]);
    case 6: return qx::Date::withTimeIntervalSinceReferenceDate(86400.0 * pick(10000));
    default: return qx::str(kWords[pick(8)] + std::string(" ") + kWords[pick(8)]);
    }
}

/// A random container at the top.
inline qx::Ref<qx::Object> randomTree(unsigned seed, int depth = 4) {
    std::mt19937 rng(seed);
    qx::Ref<qx::Object> value;
    do value = randomValue(rng, depth);
    while (!qx::dyn_cast<qx::Array>(value) && !qx::dyn_cast<qx::Dictionary>(value));
    return value;
}

/// The node and its descendants in document order.
inline std::vector<QXPropertyList::Ref> preOrder(const QXPropertyList::Ref& node) {
    std::vector<QXPropertyList::Ref> out{node};
    for (std::size_t i = 0; i < node->countOfChildren(); ++i)
        for (auto& n : preOrder(node->objectInChildrenAtIndex(i))) out.push_back(std::move(n));
    return out;
}

} // namespace plisttree
