// A file on its way: it is written as NAME.part and renamed when it is complete, so whoever finds
// NAME finds all of it. Holds whole messages only. Never writes over a file: where a name is taken,
// the next one has a number. One thread.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace ipfix_file {

class output_file {
  public:
    // directory: looked up anew for each file.
    explicit output_file(std::string directory) : directory_(std::move(directory)) {}
    ~output_file() { close_all(); }
    output_file(const output_file&) = delete;
    output_file& operator=(const output_file&) = delete;

    // All that return an int return 0, or the errno of what went wrong.

    int open(const std::string& name);
    // Adds the message as a whole, or nothing of it.
    int append(std::span<const uint8_t> message);
    // All bytes have reached the disk, and the file still has a name.
    int sync();
    // Drops what comes after the first length bytes.
    int cut_back(uint64_t length);
    // Gives the file its name, and closes it whether or not that works.
    int complete();
    // Closes the file, and leaves it as it is.
    void abandon() { close_all(); }
    // Closes and deletes the file.
    void remove();

    bool is_open() const { return descriptor_ >= 0; }
    // It was deleted, or a part of a message stands at its end and cannot be removed.
    bool is_lost() const { return is_lost_; }
    uint64_t length() const { return length_; }
    // With the directory, for messages: of the file that is open, or was last.
    std::string path() const { return directory_ + "/" + current_name_; }

  private:
    int find_place(const std::string& name);
    int give_name();
    void close_all();

    const std::string directory_;
    std::string name_;          // without a number
    std::string current_name_;  // of the file as it is now
    uint32_t number_ = 0;       // of the name that was taken last
    int directory_descriptor_ = -1;
    int descriptor_ = -1;
    uint64_t length_ = 0;
    bool is_lost_ = false;
};

}  // namespace ipfix_file
