// QXErrorReporter.cpp - posting errors on the main thread.
#include <QXFoundation/QXErrorReporter.h>
#include <QXFoundation/QXError.h>

#include <qx/NotificationCenter.h>
#include <qx/RunLoop.h>

#include <mutex>

qx::Ref<QXErrorReporter> QXErrorReporter::sharedInstance() {
    static std::once_flag once;
    static qx::Ref<QXErrorReporter>* instance = nullptr;
    std::call_once(once, [] { instance = new qx::Ref<QXErrorReporter>(new QXErrorReporter); });
    return *instance;
}

void QXErrorReporter::reportError(const qx::Ref<qx::Error>& error) {
    auto post = [&error] {
        auto userInfo = qx::Dictionary::create();
        userInfo->setObject(error, "Error");
        qx::NotificationCenter::defaultCenter()->post(QXErrorOccurredNotification, nullptr, userInfo);
    };
    if (qx::RunLoop::isMainThread()) post();
    else qx::dispatchSyncMain(post);
}
