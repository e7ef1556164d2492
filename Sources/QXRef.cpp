// QXRef.cpp - file references by device and inode, and their alias data.
#include <QXFoundation/QXRef.h>

#include <QXFoundation/QXError.h>
#include <QXFoundation/QXPropertyListSerialization.h>

#include <qx/Dictionary.h>

#include <sys/stat.h>

#include <cerrno>
#include <functional>

namespace {

// The one key of alias data; the dictionary leaves room for more.
constexpr const char* kAliasURLKey = "URL";

bool isRemote(const qx::URL& url) { return url.scheme() == "http" || url.scheme() == "https"; }

// Follows symbolic links: a reference names the file, not the link to it.
bool identify(const qx::URL& url, struct stat& st, int& failure) {
    if (::stat(url.path().c_str(), &st) == 0) return true;
    failure = errno;
    return false;
}

qx::Ref<qx::Error> unreachable(const qx::Ref<qx::URL>& url, int failure) {
    if (failure == ENOENT || failure == ENOTDIR) return QXGenerateError(qx::NSCocoaErrorDomain, 260, url);
    return QXGenerateError(qx::NSPOSIXErrorDomain, failure, url);
}

} // namespace

QXRef::QXRef(qx::Ref<qx::URL> url, bool hasIdentity, dev_t device, ino_t inode)
    : _url(std::move(url)), _hasIdentity(hasIdentity), _device(device), _inode(inode) {}

QXRef::Ref QXRef::refWithURL(const qx::Ref<qx::URL>& url, qx::Ref<qx::Error>* error) {
    if (!url || (!url->isFileURL() && !isRemote(*url))) {
        if (error) *error = QXGenerateError(qx::NSCocoaErrorDomain, 262, url);
        return nullptr;
    }
    if (!url->isFileURL()) return std::make_shared<QXRef>(url, false, 0, 0);
    struct stat st {};
    int failure = 0;
    if (!identify(*url, st, failure)) {
        if (error) *error = unreachable(url, failure);
        return nullptr;
    }
    return std::make_shared<QXRef>(url, true, st.st_dev, st.st_ino);
}

QXRef::Ref QXRef::refWithUnreachableURL(const qx::Ref<qx::URL>& url) {
    if (!url) return nullptr;
    if (auto ref = refWithURL(url)) return ref;
    return std::make_shared<QXRef>(url, false, 0, 0);
}

QXRef::Ref QXRef::refWithAliasData(const qx::Ref<qx::Data>& data, qx::Ref<qx::Error>* error) {
    qx::Ref<qx::Dictionary> alias;
    if (data && data->length() > 0)
        alias = qx::dyn_cast<qx::Dictionary>(QXPropertyListSerialization::propertyListWithData(data, nullptr));
    auto text = alias ? alias->get<qx::String>(kAliasURLKey) : nullptr;
    auto url = text ? qx::URL::URLWithString(text->utf8()) : nullptr;
    if (!url) {
        if (error) *error = QXGenerateError(qx::NSCocoaErrorDomain, 259);
        return nullptr;
    }
    return refWithURL(url, error);
}

qx::Ref<qx::Data> QXRef::aliasData() const {
    auto alias = qx::Dictionary::create();
    alias->setObject(qx::str(_url->absoluteString()), kAliasURLKey);
    return QXPropertyListSerialization::dataWithPropertyList(alias, QXPropertyListBinaryFormat_v1_0);
}

bool QXRef::isSameFileAs(const QXRef& other) const {
    if (_hasIdentity || other._hasIdentity)
        return _hasIdentity && other._hasIdentity && _device == other._device && _inode == other._inode;
    return isRemote(*_url) && isRemote(*other._url) && _url->isEqual(*other._url);
}

bool QXRef::isSameFileAsURL(const qx::Ref<qx::URL>& url) const {
    auto other = refWithURL(url);
    return other && isSameFileAs(*other);
}

std::string QXRef::description() const { return _url->isFileURL() ? _url->path() : _url->absoluteString(); }

bool QXRef::isEqual(const qx::Object& other) const {
    // Unlike isSameFileAs, a reference without identity equals itself (by
    // URL), as containers need.
    const auto* ref = qx::dyn_cast<QXRef>(&other);
    if (!ref) return false;
    if (!_hasIdentity && !ref->_hasIdentity) return _url->isEqual(*ref->_url);
    return isSameFileAs(*ref);
}

std::size_t QXRef::hash() const {
    if (_hasIdentity) return std::hash<std::uint64_t>()(static_cast<std::uint64_t>(_device) * 1000003u ^ _inode);
    return _url->hash();
}
