#include "tools/tallowctl/Completions.h"

#include <utility>

namespace tallow::ctl {

namespace {

// The members of a CLI::IsMember, which are told in an option's type: "TEXT:{production,sandbox}".
std::vector<std::string> valuesOf(const CLI::Option& option) {
  const std::string type = option.get_type_name();
  const std::size_t begin = type.find('{'), end = type.find('}');
  if (begin == std::string::npos || end == std::string::npos || end < begin) return {};
  return CLI::detail::split(type.substr(begin + 1, end - begin - 1), ',');
}

// In single quotes of any of the shells; no description needs one of its own.
std::string quoted(std::string text) {
  for (char& c : text)
    if (c == '\'') c = '`';
  return "'" + text + "'";
}

std::string joined(const std::vector<std::string>& texts) {
  std::string all;
  for (const std::string& text : texts) all += (all.empty() ? "" : " ") + text;
  return all;
}

}  // namespace

Completions::Completions(const CLI::App& root) {
  _add(root, "");
}

void Completions::_add(const CLI::App& app, const std::string& path) {
  Command command{path, {}, {}, {}};
  // Global options are understood wherever they stand.
  if (!path.empty()) {
    command.options = _commands.front().options;
    command.valued = _commands.front().valued;
  }
  std::vector<const CLI::App*> below;
  for (const CLI::App* sub : app.get_subcommands([](const CLI::App*) { return true; })) {
    if (sub->get_group().empty()) continue;  // hidden
    command.words.push_back({sub->get_name(), sub->get_description()});
    below.push_back(sub);
  }
  for (const CLI::Option* option : app.get_options()) {
    std::vector<std::string> values = valuesOf(*option);
    if (option->get_positional()) {
      for (std::string& value : values) command.words.push_back({std::move(value), ""});
      continue;
    }
    for (const std::string& name : option->get_lnames()) {
      if (!path.empty() && name == "help") continue;
      command.options.push_back({"--" + name, option->get_description()});
      if (option->get_items_expected_max() > 0) command.valued.push_back({"--" + name, values});
    }
  }
  _commands.push_back(std::move(command));
  for (const CLI::App* sub : below) _add(*sub, path + "/" + sub->get_name());
}

std::string Completions::_paths(const char* separator, const char* quote) const {
  std::string paths;
  for (const Command& command : _commands)
    if (!command.path.empty())
      paths += (paths.empty() ? "" : separator) + (quote + command.path) + quote;
  return paths;
}

std::string Completions::bash() const {
  std::string script =
      "# bash completion for tallowctl\n"
      "_tallowctl() {\n"
      "  local current=${COMP_WORDS[COMP_CWORD]} at='' words='' i\n"
      "  for ((i = 1; i < COMP_CWORD; i++)); do\n"
      "    case \"$at/${COMP_WORDS[i]}\" in\n"
      "      " +
      _paths(" | ", "") +
      ")\n"
      "        at+=/${COMP_WORDS[i]} ;;\n"
      "    esac\n"
      "  done\n"
      "  case \"$at:${COMP_WORDS[COMP_CWORD - 1]}:$current\" in\n";
  for (const Command& command : _commands)
    for (const Valued& option : command.valued)
      script += "    " + command.path + ":" + option.name +
                ":*) words=" + quoted(joined(option.values)) + " ;;\n";
  for (const Command& command : _commands) {
    std::vector<std::string> words, options;
    for (const Word& word : command.words) words.push_back(word.text);
    for (const Word& option : command.options) options.push_back(option.text);
    script += "    " + command.path + ":*:-*) words=" + quoted(joined(options)) + " ;;\n";
    script += "    " + command.path + ":*) words=" + quoted(joined(words)) + " ;;\n";
  }
  return script +
         "  esac\n"
         "  mapfile -t COMPREPLY < <(compgen -W \"$words\" -- \"$current\")\n"
         "}\n"
         "complete -F _tallowctl tallowctl\n";
}

std::string Completions::zsh() const {
  std::string script =
      "#compdef tallowctl\n"
      "local at='' word\n"
      "local -a candidates\n"
      "for word in ${words[2,CURRENT-1]}; do\n"
      "  case \"$at/$word\" in\n"
      "    " +
      _paths("|", "") +
      ") at+=/$word ;;\n"
      "  esac\n"
      "done\n"
      "case \"$at:${words[CURRENT-1]}\" in\n";
  for (const Command& command : _commands)
    for (const Valued& option : command.valued)
      script += "  " + command.path + ":" + option.name + ") candidates=(" + joined(option.values) +
                ") ;;\n";
  for (const Command& command : _commands) {
    script += "  " + command.path + ":*) candidates=(\n";
    for (const auto* list : {&command.words, &command.options})
      for (const Word& word : *list)
        script += "    " + quoted(word.text + ":" + word.description) + "\n";
    script += "  ) ;;\n";
  }
  return script + "esac\n_describe tallowctl candidates\n";
}

std::string Completions::fish() const {
  std::string script =
      "# fish completion for tallowctl\n"
      "function __tallowctl_is_at\n"
      "  set -l at ''\n"
      "  for word in (commandline -opc)[2..-1]\n"
      "    switch \"$at/$word\"\n"
      "      case " +
      _paths(" ", "'") +
      "\n"
      "        set at \"$at/$word\"\n"
      "    end\n"
      "  end\n"
      "  test \"$at\" = \"$argv[1]\"\n"
      "end\n"
      "complete -c tallowctl -f\n";
  for (const Command& command : _commands) {
    const std::string at =
        "complete -c tallowctl -n " + quoted("__tallowctl_is_at \"" + command.path + "\"");
    for (const Word& word : command.words)
      script += at + " -a " + quoted(word.text) + " -d " + quoted(word.description) + "\n";
    for (const Word& option : command.options) {
      script += at + " -l " + option.text.substr(2) + " -d " + quoted(option.description);
      for (const Valued& valued : command.valued)
        if (valued.name == option.text) script += " -x -a " + quoted(joined(valued.values));
      script += "\n";
    }
  }
  return script;
}

}  // namespace tallow::ctl
