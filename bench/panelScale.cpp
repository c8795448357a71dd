// Panel scale: a generated panel of about a million elements loaded through the gateway, and the
// panel tool printing it. Each measurement runs in a child process of its own, so that its peak
// resident size is its own (getrusage of the child) and no run inherits another's heap.
//
//   egw_panel_scale [LOOPS]        (default 831 loops of 1000 devices: 1,000,532 elements)
//
// Printed (CPU times): elements, load time and rate (the whole load, and the part after the file is
// read and checked, which is the gateway's operations), peak resident size per element with the
// share of the tree the simulator keeps, and `egw tree` to /dev/null for the panel and one of half
// its loops, alternated, with the ratio of times.
#include <malloc.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <string>
#include <vector>

#include "panelsim/panelsim.h"
#include "tools/panelConfig.h"

namespace
{

// Times are the process's CPU time: the machines this runs on are shared, and waiting for a core
// is not the work's.
struct Clock
{
    using time_point = double;
    static double now()
    {
        timespec t{};
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
        return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
    }
};

double secondsSince(double start)
{
    return Clock::now() - start;
}

double cpuSeconds(const rusage& usage)
{
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
}

struct LoadFigures
{
    double elements;
    double seconds;      // the whole load, file to tree
    double buildSeconds; // from the end of reading and checking to the end
    double peakBytes;    // peak resident size of the loading process
    double baseBytes;    // resident size before loading
    double treeBytes;    // heap in use once loaded: the simulator's tree and the loaded list
};

long residentBytes()
{
    std::ifstream statm("/proc/self/statm");
    long pages = 0;
    long resident = 0;
    statm >> pages >> resident;
    return resident * sysconf(_SC_PAGESIZE);
}

// Runs `work` in a child that writes its figures into a pipe; returns them with the child's peak
// resident size.
template <typename Work>
LoadFigures inChild(Work work)
{
    int pipeEnds[2];
    if (pipe(pipeEnds) != 0)
    {
        std::perror("pipe");
        std::exit(1);
    }
    std::fflush(stdout);
    const pid_t child = fork();
    if (child == 0)
    {
        close(pipeEnds[0]);
        LoadFigures figures = work();
        const ssize_t written = write(pipeEnds[1], &figures, sizeof figures);
        _exit(written == static_cast<ssize_t>(sizeof figures) ? 0 : 1);
    }
    close(pipeEnds[1]);
    LoadFigures figures{};
    const ssize_t got = read(pipeEnds[0], &figures, sizeof figures);
    close(pipeEnds[0]);
    int status = 0;
    rusage usage{};
    wait4(child, &status, 0, &usage);
    if (got != static_cast<ssize_t>(sizeof figures) || !WIFEXITED(status) ||
        WEXITSTATUS(status) != 0)
    {
        std::fprintf(stderr, "the measuring child failed\n");
        std::exit(1);
    }
    figures.peakBytes = static_cast<double>(usage.ru_maxrss) * 1024.0;
    return figures;
}

LoadFigures loadFile(const std::string& path)
{
    return inChild([&] {
        panelconfig::Vocabulary names;
        std::string error;
        if (!panelconfig::Vocabulary::fromTypeLibraryText(panelsim::sampleTypeLibraryText(),
                                                          "sample", names, error))
        {
            std::fprintf(stderr, "%s\n", error.c_str());
            _exit(1);
        }
        panelsim::setLogSink([](int, const std::string&, const std::string&) {});
        panelsim::reset();
        malloc_trim(0);
        LoadFigures figures{};
        figures.baseBytes = static_cast<double>(residentBytes());
        const std::size_t heapBefore = mallinfo2().uordblks;
        panelconfig::LoadedPanel panel;
        const Clock::time_point start = Clock::now();
        Clock::time_point built = start;
        // The loader reports half done once the file is read and checked; the rest is building.
        const bool loaded = panelconfig::loadPanelFile(path, names, panel, error, [&](double done) {
            if (done >= 0.5 && built == start)
            {
                built = Clock::now();
            }
        });
        figures.seconds = secondsSince(start);
        if (!loaded)
        {
            std::fprintf(stderr, "%s\n", error.c_str());
            _exit(1);
        }
        figures.buildSeconds = secondsSince(built);
        figures.elements = static_cast<double>(panel.elements.size());
        figures.treeBytes = static_cast<double>(mallinfo2().uordblks - heapBefore);
        return figures;
    });
}

// CPU time of `egw --panel FILE tree > /dev/null`.
double printTree(const std::string& panel)
{
    std::fflush(stdout);
    const pid_t child = fork();
    if (child == 0)
    {
        if (std::freopen("/dev/null", "w", stdout) == nullptr)
        {
            _exit(1);
        }
        execl(EGW_TOOL, "egw", "--panel", panel.c_str(), "tree", static_cast<char*>(nullptr));
        _exit(1);
    }
    int status = 0;
    rusage usage{};
    wait4(child, &status, 0, &usage);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
    {
        std::fprintf(stderr, "egw tree failed on %s\n", panel.c_str());
        std::exit(1);
    }
    return cpuSeconds(usage);
}

std::string generate(unsigned loops)
{
    const std::string path = "panelScale-" + std::to_string(loops) + ".json";
    std::ofstream out(path, std::ios::binary);
    panelconfig::generatePanel(out, loops, 1000);
    if (!out.flush())
    {
        std::fprintf(stderr, "%s cannot be written\n", path.c_str());
        std::exit(1);
    }
    return path;
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

} // namespace

int main(int argc, char** argv)
{
    const unsigned loops = argc > 1 ? static_cast<unsigned>(std::atoi(argv[1])) : 831;
    const std::string large = generate(loops);
    const std::string half = generate(loops / 2);

    const LoadFigures load = loadFile(large);
    std::printf("Panel: %u loops of 1000 devices, %.0f elements\n", loops, load.elements);
    std::printf("Load, file to tree: %.2f s, %.0f elements per second\n", load.seconds,
                load.elements / load.seconds);
    std::printf("  of which building through the gateway: %.2f s, %.0f elements per second\n",
                load.buildSeconds, load.elements / load.buildSeconds);
    std::printf("  reading and checking the file: %.2f s, %.0f elements per second\n",
                load.seconds - load.buildSeconds,
                load.elements / (load.seconds - load.buildSeconds));
    std::printf("Peak resident size: %.0f MB, %.0f bytes per element\n", load.peakBytes / 1e6,
                load.peakBytes / load.elements);
    std::printf("  before loading: %.0f MB; heap held by the loaded tree (simulator and loaded "
                "list): %.0f bytes per element;\n  the rest, the loader's plan and reading, at "
                "its peak: %.0f bytes per element\n",
                load.baseBytes / 1e6, load.treeBytes / load.elements,
                (load.peakBytes - load.baseBytes - load.treeBytes) / load.elements);

    // egw tree, the two sizes alternated so that drift of the shared machine falls on both.
    std::vector<double> largeTimes;
    std::vector<double> halfTimes;
    for (int round = 0; round < 3; ++round)
    {
        halfTimes.push_back(printTree(half));
        largeTimes.push_back(printTree(large));
    }
    const double halfElements =
        static_cast<double>(panelconfig::generatedElementCount(loops / 2, 1000));
    const double largeTime = median(largeTimes);
    const double halfTime = median(halfTimes);
    std::printf("egw tree > /dev/null, median of 3: %.0f elements %.2f s; %.0f elements %.2f s\n",
                halfElements, halfTime, load.elements, largeTime);
    std::printf("  elements %.3f times, time %.3f times (goal: at most 1.1 times the elements' "
                "ratio)\n",
                load.elements / halfElements, largeTime / halfTime);
    std::remove(large.c_str());
    std::remove(half.c_str());
    return 0;
}
