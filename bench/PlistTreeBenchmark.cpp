// PlistTreeBenchmark.cpp - the editable property-list tree: building it from
// plain values, unwrapping it back, and finding every node that holds a text.
//
//   qx_plist_tree_bench times FILE TEXT [--runs N]
//       Reads FILE into memory once, then N times: the plain read into values,
//       the tree built from those values (QXPropertyList), the unwrap of the
//       tree back into values, and find-all of TEXT over the tree in the order
//       `qx plist find --all` reports (every node below the root in document
//       order, keys and values, default compare options). Prints the median of
//       each step in seconds, one "name value" line each.
//   qx_plist_tree_bench peak bytes|plain|tree FILE
//       Holds FILE's bytes only, the plain values read from it, or the tree
//       built the way `qx plist` loads a file (values read, tree built, values
//       released), then prints the peak resident set in KiB. One case per
//       process, so that each peak is its own.
#include <QXFoundation/QXPropertyList.h>
#include <QXFoundation/QXPropertyListSerialization.h>

#include <CLI/CLI.hpp>

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

qx::Ref<qx::Data> readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) return nullptr;
    std::vector<std::uint8_t> bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    if (!file.eof() && !file) return nullptr;
    return std::make_shared<qx::Data>(std::move(bytes));
}

qx::Ref<qx::Object> readValues(const qx::Ref<qx::Data>& bytes) {
    QXPropertyListFormat format = 0;
    return QXPropertyListSerialization::propertyListWithData(bytes, &format);
}

// Every node below the root in document order (the node count).
void preOrder(const QXPropertyList::Ref& node, std::vector<QXPropertyList::Ref>& out) {
    for (std::size_t i = 0; i < node->countOfChildren(); ++i) {
        auto child = node->objectInChildrenAtIndex(i);
        out.push_back(child);
        preOrder(child, out);
    }
}

// What `qx plist find --all` asks: a match's descendants count too.
std::size_t findAll(const QXPropertyList::Ref& root, const qx::Ref<qx::String>& text) {
    return root->allChildrenContainingString(text, QXPropertyListSearchKeys | QXPropertyListSearchValues, 0, std::nullopt)
        .size();
}

template <typename Body>
double seconds(Body&& body) {
    const auto start = Clock::now();
    body();
    return std::chrono::duration<double>(Clock::now() - start).count();
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    const std::size_t n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

int runTimes(const std::string& path, const std::string& text, unsigned runs) {
    const auto bytes = readFile(path);
    if (!bytes) {
        std::cerr << "qx_plist_tree_bench: cannot read " << path << "\n";
        return 1;
    }
    const auto needle = qx::str(text);
    std::vector<double> read, build, unwrap, find, releaseTree, releaseValues;
    std::size_t matches = 0, nodes = 0;
    for (unsigned run = 0; run < runs; ++run) {
        qx::Ref<qx::Object> values;
        read.push_back(seconds([&] { values = readValues(bytes); }));
        if (!values) {
            std::cerr << "qx_plist_tree_bench: the library cannot read " << path << "\n";
            return 1;
        }
        QXPropertyList::Ref tree;
        build.push_back(seconds([&] { tree = QXPropertyList::propertyListWithUnwrappedValue(values); }));
        qx::Ref<qx::Object> unwrapped;
        unwrap.push_back(seconds([&] { unwrapped = tree->unwrappedPropertyList(); }));
        if (!unwrapped || (run == 0 && !unwrapped->isEqual(*values))) {
            std::cerr << "qx_plist_tree_bench: the unwrapped tree differs from the values it was built from\n";
            return 1;
        }
        find.push_back(seconds([&] { matches = findAll(tree, needle); }));
        if (run == 0) {
            std::vector<QXPropertyList::Ref> all;
            preOrder(tree, all);
            nodes = all.size() + 1;
        }
        releaseValues.push_back(seconds([&] { values.reset(); unwrapped.reset(); }) / 2);
        releaseTree.push_back(seconds([&] { tree.reset(); }));
    }
    std::printf("runs %u\nnodes %zu\nmatches %zu\n", runs, nodes, matches);
    std::printf("plain_read %.6f\ntree_build %.6f\nunwrap %.6f\nfind_all %.6f\n", median(read), median(build),
                median(unwrap), median(find));
    std::printf("release_values %.6f\nrelease_tree %.6f\n", median(releaseValues), median(releaseTree));
    return 0;
}

int runPeak(const std::string& what, const std::string& path) {
    auto bytes = readFile(path);
    if (!bytes) {
        std::cerr << "qx_plist_tree_bench: cannot read " << path << "\n";
        return 1;
    }
    qx::Ref<qx::Object> values;
    QXPropertyList::Ref tree;
    if (what != "bytes") values = readValues(bytes);
    if (what == "tree" && values) {
        tree = QXPropertyList::propertyListWithUnwrappedValue(values);
        values.reset();
    }
    if (what != "bytes" && !values && !tree) {
        std::cerr << "qx_plist_tree_bench: the library cannot read " << path << "\n";
        return 1;
    }
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    std::printf("%ld\n", usage.ru_maxrss);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app{"Property-list tree: build, unwrap, find-all and peak memory"};
    app.require_subcommand(1);
    std::string path, text, what;
    unsigned runs = 3;
    auto* times = app.add_subcommand("times", "Median times of read, build, unwrap and find-all");
    times->add_option("FILE", path, "Binary property list")->required();
    times->add_option("TEXT", text, "Text to find")->required();
    times->add_option("--runs", runs, "Timed runs")->capture_default_str()->check(CLI::Range(1u, 1000u));
    auto* peak = app.add_subcommand("peak", "Peak resident set (KiB) holding bytes, plain values or the tree");
    peak->add_option("WHAT", what, "bytes, plain or tree")->required()->check(CLI::IsMember({"bytes", "plain", "tree"}));
    peak->add_option("FILE", path, "Binary property list")->required();
    CLI11_PARSE(app, argc, argv);
    return times->parsed() ? runTimes(path, text, runs) : runPeak(what, path);
}
