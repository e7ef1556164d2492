// GeneratePlist.cpp - writes the benchmark property list as a binary file.
//
//   qx_generate_plist [--seed N] [--objects N] -o FILE
//
// Prints the object count (from the written file's trailer) and the size, so
// that the benchmark script can report objects per second.
#include "PlistGenerator.h"

#include <QXFoundation/QXPropertyListSerialization.h>

#include <CLI/CLI.hpp>

#include <cstdio>
#include <fstream>
#include <iostream>

namespace {

std::uint64_t bigEndian64(const std::uint8_t* p) {
    std::uint64_t v = 0;
    for (int i = 0; i < 8; ++i) v = (v << 8) | p[i];
    return v;
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app{"Writes a large binary property list for benchmarks"};
    std::uint64_t seed = 1;
    std::uint64_t objects = 1'000'000;
    std::string output;
    app.add_option("--seed", seed, "Seed of the deterministic content")->capture_default_str();
    app.add_option("--objects", objects, "Minimum number of objects in the file")->capture_default_str();
    app.add_option("-o,--output", output, "File to write")->required();
    CLI11_PARSE(app, argc, argv);

    const auto generated = qxbench::generatePlist(seed, objects);
    qx::Ref<qx::Error> error;
    const auto data =
        QXPropertyListSerialization::dataWithPropertyList(generated.root, QXPropertyListBinaryFormat_v1_0, &error);
    if (!data) {
        std::cerr << "qx_generate_plist: cannot write the property list: "
                  << (error ? error->localizedDescription() : std::string("unknown error")) << "\n";
        return 1;
    }
    if (data->length() < 32) {
        std::cerr << "qx_generate_plist: the writer returned " << data->length() << " bytes\n";
        return 1;
    }
    const std::uint64_t written = bigEndian64(data->bytes() + data->length() - 24);
    if (written != generated.objects) {
        std::cerr << "qx_generate_plist: expected " << generated.objects << " objects, the file has " << written
                  << "\n";
        return 1;
    }

    std::ofstream out(output, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data->bytes()), static_cast<std::streamsize>(data->length()));
    out.close();
    if (!out) {
        std::cerr << "qx_generate_plist: cannot write " << output << "\n";
        return 1;
    }
    std::cout << "objects " << written << "\nbytes " << data->length() << "\n";
    return 0;
}
