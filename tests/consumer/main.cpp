// Writes a small property list and reads it back through the installed library.
#include <QXFoundation/QXFoundation.h>

#include <cstdio>

int main() {
    auto dict = qx::Dictionary::create();
    dict->setObject(qx::str("value"), "key");
    qx::Ref<qx::Error> error;
    auto data = QXPropertyListSerialization::dataWithPropertyList(dict, QXPropertyListBinaryFormat_v1_0, &error);
    if (!data) {
        std::fprintf(stderr, "write failed: %s\n", error ? error->localizedDescription().c_str() : "?");
        return 1;
    }
    QXPropertyListFormat format = 0;
    auto back = QXPropertyListSerialization::propertyListWithData(data, &format, &error);
    if (!back || !back->isEqual(*dict) || format != QXPropertyListBinaryFormat_v1_0) {
        std::fprintf(stderr, "read back failed\n");
        return 1;
    }
    std::printf("%s\n", back->description().c_str());
    return 0;
}
