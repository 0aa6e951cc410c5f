// Replays stored fuzz inputs through a target's entry point, without libFuzzer:
//
//   replay PATH...
//
// Each PATH is a file or a directory whose files are replayed in name order. A crash or
// a sanitizer report ends the run; otherwise it prints how many inputs passed.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

bool isDirectory(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::vector<std::string> filesOf(const std::string& dir) {
  std::vector<std::string> files;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      std::string name = e->d_name;
      if (name[0] == '.') continue;
      std::string path = dir + "/" + name;
      if (!isDirectory(path)) files.push_back(path);
    }
    closedir(d);
  }
  std::sort(files.begin(), files.end());
  return files;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> inputs;
  for (int i = 1; i < argc; ++i) {
    if (isDirectory(argv[i])) {
      std::vector<std::string> files = filesOf(argv[i]);
      inputs.insert(inputs.end(), files.begin(), files.end());
    } else {
      inputs.push_back(argv[i]);
    }
  }
  for (const std::string& path : inputs) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
      fprintf(stderr, "replay: cannot read %s\n", path.c_str());
      return 1;
    }
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    fprintf(stderr, "replay: %s\n", path.c_str());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
  printf("replay: %zu inputs passed\n", inputs.size());
  return 0;
}
