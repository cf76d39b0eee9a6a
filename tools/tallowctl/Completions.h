#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace tallow::ctl {

// Scripts that let a shell complete the command line, made from the commands as they are parsed:
// whatever Application adds is in them. A value.
class Completions {
 public:
  explicit Completions(const CLI::App& root);

  std::string bash() const;
  std::string zsh() const;
  std::string fish() const;

 private:
  struct Word {
    std::string text;
    std::string description;
  };
  // An option that takes a value, and the values where they are known.
  struct Valued {
    std::string name;
    std::vector<std::string> values;
  };
  struct Command {
    std::string path;         // "/bag/load"; empty for the program itself
    std::vector<Word> words;  // commands below it, and values of its arguments
    std::vector<Word> options;
    std::vector<Valued> valued;
  };
  void _add(const CLI::App& app, const std::string& path);
  // "/bag|/bag/load|...": the cases in which a word leads to a command.
  std::string _paths(const char* separator, const char* quote) const;

  std::vector<Command> _commands;  // the program first
};

}  // namespace tallow::ctl
