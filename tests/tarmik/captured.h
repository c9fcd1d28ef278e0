// What a command prints, kept for a test.
#pragma once

#include <cstdio>
#include <gtest/gtest.h>
#include <string>

#include "tarmik/commands.h"

/// What a command has printed.
class Captured {
  public:
    Captured() : data_(std::tmpfile()), remarks_(std::tmpfile()) {
        output.data = data_;
        output.remarks = remarks_;
    }
    ~Captured() {
        std::fclose(data_);
        std::fclose(remarks_);
    }
    Captured(const Captured&) = delete;
    Captured& operator=(const Captured&) = delete;

    [[nodiscard]] std::string data() const { return text(data_); }
    [[nodiscard]] std::string remarks() const { return text(remarks_); }

    cli::Output output;

  private:
    static std::string text(std::FILE* file) {
        std::string all(static_cast<size_t>(std::ftell(file)), '\0');
        std::rewind(file);
        EXPECT_EQ(std::fread(all.data(), 1, all.size(), file), all.size());
        return all;
    }
    std::FILE* data_;
    std::FILE* remarks_;
};
