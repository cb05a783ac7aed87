// qzsse-demo: a height image through the whole library, step by step, with pictures.
//
//   qzsse-demo [INPUT] [--out DIR]
//
// INPUT is a height image (.npy, 8/16-bit greyscale .png, 32-bit float .tif); without one
// the elevation sample shipped with the examples is used. Results go to DIR (default
// ./qzsse-demo-output). Exit status: 0 done, 1 failure while running, 2 bad arguments or
// unusable input (nothing written), 3 a self-check of the results failed.

#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <new>
#include <string>

#include "demo/DemoSteps.h"
#include "demo/HeightImageInput.h"
#include "demo/OutputFolder.h"
#include "demo/Stopwatch.h"

#ifndef QZSSE_DEMO_SAMPLE
#define QZSSE_DEMO_SAMPLE "examples/data/jacksboro_fault_dem.npy"
#endif

namespace {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
constexpr int kExitCheck = 3;

void printUsage(std::FILE* to)
{
    std::fprintf(to,
                 "usage: qzsse-demo [INPUT] [--out DIR]\n"
                 "  INPUT      height image: .npy (2-D float32/float64/int16), 8- or 16-bit greyscale .png,\n"
                 "             or 32-bit float .tif/.tiff; default: the shipped elevation sample\n"
                 "  --out DIR  folder for the pictures, the mesh and the matrix store\n"
                 "             (default: ./qzsse-demo-output)\n");
}

struct Arguments {
    std::filesystem::path input;
    std::filesystem::path output = "qzsse-demo-output";
    bool help = false;
};

// Returns false with a message on stderr for anything it does not understand.
bool parseArguments(int argc, char** argv, Arguments& args)
{
    bool haveInput = false;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "-h" || a == "--help") {
            args.help = true;
        } else if (a == "--out" || a == "-o") {
            if (i + 1 >= argc || std::strlen(argv[i + 1]) == 0) {
                std::fprintf(stderr, "qzsse-demo: %s needs a folder name\n", a.c_str());
                return false;
            }
            args.output = argv[++i];
        } else if (a.rfind("--out=", 0) == 0 && a.size() > 6) {
            args.output = a.substr(6);
        } else if (!a.empty() && a[0] == '-') {
            std::fprintf(stderr, "qzsse-demo: unknown option %s\n", a.c_str());
            return false;
        } else if (haveInput) {
            std::fprintf(stderr, "qzsse-demo: only one input image, got %s as well\n", a.c_str());
            return false;
        } else {
            args.input = a;
            haveInput = true;
        }
    }
    if (!haveInput)
        args.input = QZSSE_DEMO_SAMPLE;
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    using namespace qzsse::demo;
    Arguments args;
    if (!parseArguments(argc, argv, args)) {
        printUsage(stderr);
        return kExitUsage;
    }
    if (args.help) {
        printUsage(stdout);
        return 0;
    }

    HeightImage input;
    Stopwatch loading;
    try {
        input = LoadHeightImage(args.input);
    } catch (const InputError& e) {
        std::fprintf(stderr, "qzsse-demo: %s\n", e.what());
        return kExitUsage;
    } catch (const std::bad_alloc&) {
        std::fprintf(stderr, "qzsse-demo: not enough memory to read %s\n", args.input.c_str());
        return kExitUsage;
    }
    const double loadMilliseconds = loading.Milliseconds();

    OutputFolder output(args.output);
    try {
        output.Create();
        DemoSteps demo(std::move(input), args.input.filename().string(), output);
        demo.LoadMatrix(loadMilliseconds);
        demo.ThresholdAndMeasure();
        demo.TraceContour();
        demo.MeshAndScanConvert();
        demo.DelaunayAndOctree();
        demo.StoreAndReload();
    } catch (const CheckFailed& e) {
        std::fprintf(stderr, "qzsse-demo: check failed: %s\n", e.what());
        return kExitCheck;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "qzsse-demo: %s\n", e.what());
        return kExitFailure;
    }
    std::printf("written to %s:", output.Directory().c_str());
    for (const std::string& name : output.Written())
        std::printf(" %s", name.c_str());
    std::printf("\n");
    return 0;
}
