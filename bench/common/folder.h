// A folder for the length of a scope.
#pragma once

#include <string>

namespace bench {

class Folder {
  public:
    /// A new one in `base`. Throws std::runtime_error.
    explicit Folder(const std::string& base);
    /// Removes it with all in it.
    ~Folder();
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    [[nodiscard]] const std::string& path() const { return path_; }

  private:
    std::string path_;
};

}  // namespace bench
