// QXThread.cpp - the closure's scope on its own thread.
#include <QXFoundation/QXThread.h>

QXThread::QXThread(Closure closure) : qx::Thread(nullptr), closure_(std::move(closure)) {}

qx::Ref<QXThread> QXThread::initWithClosure(Closure closure) { return std::make_shared<QXThread>(std::move(closure)); }

qx::Ref<QXThread> QXThread::detachNewThreadWithClosure(Closure closure) {
    auto thread = initWithClosure(std::move(closure));
    if (!thread->start()) return nullptr;
    return thread;
}

void QXThread::main() {
    // The scope: the closure, and with it everything it captured, ends here,
    // on this thread, before the thread is reported finished.
    Closure closure = std::move(closure_);
    closure_ = nullptr;
    if (closure) closure();
}
