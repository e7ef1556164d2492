// QXFoundationPrivate.h - the library's load hooks, its bundle and its localised texts.
#pragma once

#include <qx/Bundle.h>
#include <qx/EmbeddedResource.h>
#include <qx/String.h>

#include <cstddef>
#include <string_view>

/// An empty class that marks the library's own code: the library's bundle is
/// the one compiled into the same shared object as this class.
class QXFoundationDummyObject final : public qx::Object {
public:
    std::string className() const override { return "QXFoundationDummyObject"; }
};

/// Runs when the library is loaded (before any other of its code is called):
/// makes the library's bundle from its compiled-in resources and the override
/// directory named by QXFOUNDATION_RESOURCES, replacing any earlier bundle.
/// Stops the process when there is no bundle to be had.
void QXFoundationInitializer(void);
/// Runs when the library is unloaded: drops the bundle.
void CFFoundationUninitializer(void);

/// What QXFoundationInitializer does, over a given resource table and override
/// directory (either may be missing); also for tests.
void QXFoundationInitializerWithResources(const qx::EmbeddedResource* resources, std::size_t count,
                                          const char* overrideDirectory);

/// The library's bundle, or nothing before load and after unload.
qx::Ref<qx::Bundle> QXFoundationBundle();

/// The library's text for key in the current language; else its English text;
/// else the key itself. Never nothing; callable from any thread.
qx::Ref<qx::String> QXFLocalizedString(std::string_view key);
