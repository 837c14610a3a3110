#include "host/CommandLine.h"

#include <CLI/CLI.hpp>

#include <sstream>

#ifndef NP_VERSION
#define NP_VERSION "unknown"
#endif

namespace Host {

namespace {

std::string sentence(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  if (!text.empty() && text.back() != '.') text += '.';
  return text;
}

}  // namespace

bool CommandLine::parse(int argc, const char* const* argv) {
  CLI::App app{"Loads a data plug-in named in a registry file and drives it.", "nphost"};
  app.set_version_flag("--version", std::string("nphost ") + NP_VERSION);
  app.require_subcommand(1);

  std::string logFile, logFormat, name, pluginDirectory, probeDirectory;
  CLI::App* script = app.add_subcommand(
      "script", "Create the plug-in, then run one command per line of standard input and print one answer per line");
  script->add_option("REGISTRY", optionsM.registryFile, "Registry file (TOML)")->required();
  auto* logOption = script->add_option("--log", logFile, "Log file, '-' for standard error (overrides Framework.Log)");
  auto* formatOption = script->add_option("--log-format", logFormat, "Log format: text or json (overrides Framework.LogFormat)");
  auto* nameOption = script->add_option("--name", name, "Plug-in instance to load when the registry holds several");
  auto* pluginOption = script->add_option("--plugin-dir", pluginDirectory,
                                          "Where bare library names are looked up (overrides Framework.PluginDirectory)");
  auto* probeOption = script->add_option("--probe-dir", probeDirectory,
                                         "Where probe information files are read (overrides Framework.ProbeDirectory)");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    exitStatusM = e.get_exit_code() == 0 ? 0 : 1;
    if (exitStatusM == 0) {
      std::ostringstream out, err;
      app.exit(e, out, err);
      outputM = out.str();
    } else {
      errorM = "nphost: " + sentence(e.what()) + " Run 'nphost --help' for the usage.";
    }
    return false;
  }

  if (*formatOption && logFormat != "text" && logFormat != "json") {
    errorM = "nphost: --log-format must be 'text' or 'json', not '" + logFormat + "'.";
    exitStatusM = 1;
    return false;
  }
  optionsM.mode = Options::Mode::SCRIPT;
  if (*logOption) optionsM.logFile = logFile;
  if (*formatOption) optionsM.logFormat = logFormat;
  if (*nameOption) optionsM.name = name;
  if (*pluginOption) optionsM.pluginDirectory = pluginDirectory;
  if (*probeOption) optionsM.probeDirectory = probeDirectory;
  return true;
}

}  // namespace Host
