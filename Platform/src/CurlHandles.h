// CurlHandles.h - owners of libcurl's handles, so each is released once, also
// when an exception passes.
//
// An easy handle must leave its multi handle (curl_multi_remove_handle) before
// it is destroyed, and a header list must outlive the easy handle that sends
// it: owners that hold both declare the list first so it is destroyed last.
#pragma once

#include <curl/curl.h>

#include <memory>

namespace qx {

struct CurlEasyDeleter {
    void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
};
struct CurlMultiDeleter {
    void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
};
struct CurlSlistDeleter {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
struct CurlUrlDeleter {
    void operator()(CURLU* url) const { curl_url_cleanup(url); }
};
struct CurlStringDeleter {
    void operator()(char* text) const { curl_free(text); }
};

using CurlEasy = std::unique_ptr<CURL, CurlEasyDeleter>;
using CurlMulti = std::unique_ptr<CURLM, CurlMultiDeleter>;
using CurlSlist = std::unique_ptr<curl_slist, CurlSlistDeleter>;
using CurlUrl = std::unique_ptr<CURLU, CurlUrlDeleter>;
using CurlString = std::unique_ptr<char, CurlStringDeleter>;

/// Appends a copy of line to list; false (list unchanged) when memory runs out.
/// curl_slist_append returns null on failure without freeing the list, so the
/// owner keeps it until a new head is known.
inline bool appendTo(CurlSlist& list, const char* line) {
    curl_slist* head = curl_slist_append(list.get(), line);
    if (!head) return false;
    if (head != list.get()) {
        (void)list.release();
        list.reset(head);
    }
    return true;
}

} // namespace qx
