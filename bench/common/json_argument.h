// The one option our Google Benchmark programs add: "--json FILE" (or "--json=FILE") is taken
// out of the arguments, and the rest is left for the library, ready for
// benchmark::Initialize(&count, args.data()).
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace qvn::bench {

struct BenchArguments {
  std::string jsonPath;     // empty: no file
  std::vector<char*> args;  // ends with a null pointer, as argv does
  int count = 0;            // not counting that null pointer
};

// Exits with status 2 and a line naming `program` when "--json" has no file.
inline BenchArguments takeJsonArgument(int argc, char** argv, const char* program) {
  BenchArguments out;
  for (int i = 0; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--json" && i + 1 < argc) {
      out.jsonPath = argv[++i];
    } else if (arg.rfind("--json=", 0) == 0) {
      out.jsonPath = arg.substr(7);
    } else if (arg == "--json") {
      std::fprintf(stderr, "%s: --json needs a file\n", program);
      std::exit(2);
    } else {
      out.args.push_back(argv[i]);
    }
  }
  out.count = int(out.args.size());
  out.args.push_back(nullptr);
  return out;
}

}  // namespace qvn::bench
