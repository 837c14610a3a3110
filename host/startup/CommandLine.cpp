#include "host/startup/CommandLine.h"

#include <CLI/CLI.hpp>

#include <algorithm>
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

// Help text in lines of at most 110 columns; each element of `paragraphs` starts a line.
std::string wrapped(std::initializer_list<std::string> paragraphs) {
  constexpr std::size_t widthCM = 110;
  std::string text;
  for (const std::string& paragraph : paragraphs) {
    std::istringstream words(paragraph);
    std::string line;
    for (std::string word; words >> word;) {
      if (!line.empty() && line.size() + 1 + word.size() > widthCM) {
        text += line + '\n';
        line.clear();
      }
      line += (line.empty() ? "" : " ") + word;
    }
    text += line + '\n';
  }
  text.pop_back();  // CLI11 ends the footer itself
  return text;
}

}  // namespace

std::string_view CommandLine::version() { return NP_VERSION; }

bool CommandLine::parse(int argc, const char* const* argv) {
  CLI::App app{"Loads a data plug-in named in a registry file and drives it.", "nphost"};
  app.set_version_flag("--version", std::string("nphost ") + NP_VERSION);
  app.require_subcommand(1);

  // The parts of the one table of exit statuses that run, script and check share,
  // and the paragraphs that several helps hold.
  const std::string registryText = "the registry file (unreadable, not TOML, a bad [Framework] value)";
  const std::string libraryStatus = "2 the plug-in library or an entry point is not found";
  const std::string notStartedCauses =
      "a missing mandatory key, a SearchMethod that is no whole number, a data file that cannot be read or is not a file";
  const std::string notValid = "not valid after construction (" + notStartedCauses + ")";
  const std::string dataFile =
      "The data file (the registry's FileName, a delta file): one record per line, three fields separated by blanks or "
      "tabs: NUMBER VALID-FROM OPERATOR, e.g. '+4930123456 20230301000000 D052' (VALID-FROM as YYYYMMDDHHMMSS, UTC). "
      "No header, no comments: every line is a record, and the last line needs its line end.";
  const std::string checkFirst = "'nphost check' shows what a load would skip.";
  const std::string reloads =
      "Reloads (update Reload): with ReuseOnFailure=TRUE, the default, a reload whose last line is rejected or whose "
      "file is empty still replaces the data with whatever was read; ReuseOnFailure=FALSE keeps the old data then.";

  std::string logFile, logFormat, name, pluginDirectory, probeDirectory, delimiter, controlSocket, metrics;
  struct Shared {
    CLI::Option* log;
    CLI::Option* format;
    CLI::Option* name;
    CLI::Option* plugin;
    CLI::Option* probe;
  };
  // script and run take the same registry and [Framework] overrides.
  const auto addShared = [&](CLI::App* command) {
    command->add_option("REGISTRY", optionsM.registryFile, "Registry file (TOML)")->required();
    return Shared{
        command->add_option("--log", logFile, "Log file, '-' for standard error (overrides Framework.Log)"),
        command->add_option("--log-format", logFormat, "Log format: text or json (overrides Framework.LogFormat)"),
        command->add_option("--name", name, "Plug-in instance to load when the registry holds several"),
        command->add_option("--plugin-dir", pluginDirectory,
                            "Where bare library names are looked up (overrides Framework.PluginDirectory)"),
        command->add_option("--probe-dir", probeDirectory,
                            "Where probe information files are read (overrides Framework.ProbeDirectory)")};
  };

  CLI::App* script = app.add_subcommand(
      "script", "Create the plug-in, then run one command per line of standard input and print one answer per line");
  const Shared scriptOptions = addShared(script);
  script->footer(wrapped(
      {"Prints 'construct valid=true|false' and 'init result=true|false', then one answer line per command: search "
       "NUMBER DATETIME, explain NUMBER DATETIME, usable, status, update KEY=VALUE ..., probe NAME [VALUE], await ID [COUNT [TIMEOUT_MS]], "
       "after ID TIMEOUT_MS COMMAND [ARGS...], sleep MS, shutdown. Lines that are blank or start with '#' get no "
       "answer. The log goes to standard error unless --log or Framework.Log say otherwise.",
       dataFile + " " + checkFirst, reloads,
       "File names (FileName, delta and print files, --log) are relative to the working folder.",
       "Exit status: 0 done; 1 the command line or " + registryText + " cannot be used; " + libraryStatus +
           "; 3 the plug-in could not start: " + notValid + ", or its start-up load failed (init result=false)."}));

  CLI::App* run = app.add_subcommand(
      "run", "Enrich event records (NUMBER;DATETIME;...) with the operator found for each, in input order");
  const Shared runOptions = addShared(run);
  run->add_option("--input", optionsM.input, "Event records, one per line; '-' for standard input (default)");
  run->add_option("--output", optionsM.output, "Enriched records; '-' for standard output (default)");
  run->add_option("--threads", optionsM.threads, "Lookup threads (default: one per core)")
      ->check(CLI::Range(1u, 1024u));
  auto* delimiterOption = run->add_option("--delimiter", delimiter, "Field delimiter, one character (default ';')");
  run->add_option("--control", controlSocket,
                  "Unix domain socket (mode 0600) on which 'nphost ctl' sends commands while records flow");
  auto* metricsOption = run->add_option(
      "--metrics", metrics,
      "Serve Prometheus metrics at http://HOST:PORT/metrics (127.0.0.1:9464, [::1]:9464, localhost:9464; a port "
      "alone is on 127.0.0.1; port 0 takes a free one, which the log names); off by default");
  run->add_option_function<std::string>(
         "--control-mode",
         [this](const std::string& mode) { optionsM.controlForGroup = mode == "0660"; },
         "The control socket's mode: 0600 (default, the owner only) or 0660 (the process's group too)")
      ->check(CLI::IsMember({"0600", "0660"}));
  run->add_flag("--normalize", optionsM.normalize,
                "Bring event numbers (+4930..., 030...) to the stored form with the plug-in's dialling codes "
                "before the lookup; the output keeps them as they came");
  run->add_option("--max-line", optionsM.maxLineBytes,
                  "Longest event line in bytes (default 1048576); a longer one is passed on unchanged with an empty "
                  "operator and counted as rejected")
      ->check(CLI::Range(std::size_t{1}, std::size_t{1} << 30));
  std::string fields;
  auto* fieldsOption = run->add_option(
      "--fields", fields,
      "What each record gets appended, in order, separated by the delimiter (default operator): " +
          RecordFields::knownNames() +
          ". valid_from: the date-time from which the answering record holds; match: number, or prefix:N when a "
          "stored prefix of N digits answered; generation: the data that answered (as in status and the log's "
          "INF_NPHOST_GENERATION); each empty when no record held (generation: when the line was rejected)")
      ->type_name("LIST");
  run->footer(wrapped(
      {"Input: one event record per line, fields separated by the delimiter: the number in the stored form "
       "(004930123456), the date-time as YYYYMMDDHHMMSS (UTC), further fields kept as they are. Output: every input "
       "line in input order, followed by the delimiter and the operator found (empty when none held). A summary on "
       "standard error at the end; the log goes there too unless --log or Framework.Log say otherwise.",
       dataFile + " " + checkFirst, reloads,
       "File names (FileName, delta and print files, --input, --output, --log) are relative to the working folder.",
       "Signals: SIGINT or SIGTERM ends the run after writing the records read (status 0); a second one ends it at "
       "once (128 + signal); SIGHUP reopens the log file.",
       "Exit status: 0 done, also after SIGINT or SIGTERM; 1 the command line, " + registryText +
           ", the input or the output cannot be used; " + libraryStatus + "; 3 the plug-in could not start: " +
           notValid + ", or its start-up load failed; 128 + N a second signal N ended it at once."}));

  CLI::App* check = app.add_subcommand(
      "check", "Judge the registry's data file line by line as the plug-in would load it, without starting it");
  check->footer(wrapped(
      {"First the registry file: 'REGISTRY:LINE: ...' for every key of the instance's table that the plug-in does "
       "not read (Library aside), a SearchMethod other than 0, 1 or 2, and a CountryCode, NationalAccessCode or "
       "InternationalAccessCode that is not digits alone; an empty NationalAccessCode (a country without a trunk "
       "prefix) is only noted.",
       "Then 'FILE:LINE: what is wrong' for every data line that the plug-in would reject (not three fields, a "
       "blank line, an invalid date-time, a duplicate of an earlier number and date, a last line without a line "
       "end) and every line whose number holds anything but digits, one leading '+' and the separators - . / ( ), "
       "then a summary: lines, records, numbers, rejected, suspicious, the dates' span, operators.",
       dataFile, "File names are relative to the working folder.",
       "Exit status: 0 clean (notes aside); 1 the command line or " + registryText + " cannot be used; " + libraryStatus +
           "; 3 the plug-in would not start: " + notStartedCauses +
           ", or a data line it cannot read; also when the check was ended by a failure (memory ran out); 4 "
           "findings in the configuration or the data."}));
  check->add_option("REGISTRY", optionsM.registryFile, "Registry file (TOML)")->required();
  auto* checkName = check->add_option("--name", name, "Plug-in instance to check when the registry holds several");
  auto* checkPlugin = check->add_option("--plugin-dir", pluginDirectory,
                                        "Where bare library names are looked up (overrides Framework.PluginDirectory)");

  CLI::App* ctl = app.add_subcommand(
      "ctl", "Send one command to the control socket of a running 'nphost run' and print the answer");
  std::string waitFor;
  auto* waitOption = ctl->add_option(
      "--wait", waitFor,
      "Wait until this message or event (e.g. EVT::RELOAD_SUCCESSFUL) is logged after the command began; "
      "prints 'await ID ok', 'await ID failed' (for EVT::RELOAD_SUCCESSFUL and EVT::ADD_NUM_PORT_DATA_SUCCESSFUL: "
      "their failure event came first) or 'await ID timeout' after the answer");
  auto* timeoutOption = ctl->add_option("--timeout", optionsM.waitTimeoutMs, "Longest wait of --wait in ms (default 60000)")
                            ->check(CLI::Range(0ull, 86'400'000ull));
  ctl->add_option("SOCKET", controlSocket, "The socket given to 'nphost run --control'")->required();
  ctl->add_option("COMMAND", optionsM.command,
                  "An operation: 'reload [--reuse]', 'delta FILE' or 'print FILE'; or a command of the script "
                  "grammar and its arguments: search, explain, usable, status, update, probe, await, after. update takes the "
                  "plug-in's keys bare, e.g. update Reload ReuseOnFailure=FALSE")
      ->required()
      ->expected(-1);
  ctl->footer("Operations, each a synchronous update followed by 'status'; two lines: 'VERB ok' or 'VERB failed: REASON',\n"
              "then the status line:\n"
              "  reload [--reuse]  reload the data file with ReuseOnFailure=FALSE; failed when that failed (the old\n"
              "                    data serves). --reuse then reloads with TRUE: what the file holds serves, still failed\n"
              "  delta FILE        load a delta file; failed when it failed or the data file was not rewritten\n"
              "  print FILE        dump the data into FILE, a regular file; failed unless FILE now holds the dump\n"
              "A relative FILE is taken in the working folder of nphost run, not of ctl.\n"
              "Exit status 0 when the command was carried out; 1 when an operation failed, the answer starts with\n"
              "'error', is 'update result=false ...' or '... taken=false' or ends 'saved=false', is\n"
              "'probe NAME result=false', or a wait failed or timed out; also when the socket cannot be reached.\n"
              "Examples:\n"
              "  nphost ctl /tmp/np.sock reload\n"
              "  nphost ctl /tmp/np.sock delta /data/np_delta.txt\n"
              "  nphost ctl /tmp/np.sock status\n"
              "  nphost ctl --wait EVT::RELOAD_SUCCESSFUL --timeout 600000 /tmp/np.sock probe reload FALSE");
  // Arguments of the command may start with '-'; they are not options of ctl.
  ctl->prefix_command();

  // Set after the subcommands, which would otherwise start with it as their own footer.
  app.footer(wrapped(
      {"Run 'nphost SUBCOMMAND --help' for what each reads and prints, its options and its exit statuses.",
       "Exit status of run, script and check: 0 done (check: clean); 1 the command line, " + registryText +
           ", the input or the output cannot be used; " + libraryStatus + "; 3 the plug-in could not start: " +
           notValid + ", or its start-up load failed; 4 (check only) findings in the configuration or the data. "
           "run: 128 + N when a second signal N ended it at once. ctl: 0 the command was carried out, 1 not."}));

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    exitStatusM = e.get_exit_code() == 0 ? 0 : 1;
    if (exitStatusM == 0) {
      std::ostringstream out, err;
      app.exit(e, out, err);
      outputM = out.str();
      return false;
    }
    errorM = "nphost: " + sentence(e.what()) + " Run 'nphost --help' for the usage.";
    if (app.get_subcommands().empty()) {
      // The program takes no words of its own before the subcommand: the first one is meant as one.
      const char* const* word = std::find_if(argv + 1, argv + argc, [](const char* w) { return w[0] != '-'; });
      errorM = word == argv + argc
                   ? std::string("nphost: a subcommand is required: script, run, check or ctl. Run 'nphost --help' "
                                 "for the usage.")
                   : "nphost: '" + std::string(*word) +
                         "' is not a subcommand; the subcommands are script, run, check and ctl. Run 'nphost --help' "
                         "for the usage.";
    }
    return false;
  }

  const auto refuse = [this](const std::string& sentence) {
    errorM = "nphost: " + sentence;
    exitStatusM = 1;
    return false;
  };
  if (ctl->parsed()) {
    optionsM.mode = Options::Mode::CTL;
    optionsM.controlSocket = controlSocket;
    // prefix_command leaves the words after the first one to remaining().
    for (const std::string& word : ctl->remaining()) optionsM.command.push_back(word);
    if (*timeoutOption && !*waitOption) return refuse("--timeout is the longest wait of --wait; give --wait too.");
    if (*waitOption) optionsM.waitFor = waitFor;
    return true;
  }

  if (check->parsed()) {
    optionsM.mode = Options::Mode::CHECK;
    if (*checkName) optionsM.name = name;
    if (*checkPlugin) optionsM.pluginDirectory = pluginDirectory;
    return true;
  }

  const Shared& shared = run->parsed() ? runOptions : scriptOptions;
  if (*shared.format && logFormat != "text" && logFormat != "json")
    return refuse("--log-format must be 'text' or 'json', not '" + logFormat + "'.");
  optionsM.mode = run->parsed() ? Options::Mode::RUN : Options::Mode::SCRIPT;
  if (*shared.log) optionsM.logFile = logFile;
  if (*shared.format) optionsM.logFormat = logFormat;
  if (*shared.name) optionsM.name = name;
  if (*shared.plugin) optionsM.pluginDirectory = pluginDirectory;
  if (*shared.probe) optionsM.probeDirectory = probeDirectory;
  if (run->parsed()) {
    if (*delimiterOption) {
      if (delimiter.size() != 1 || delimiter[0] == '\n' || delimiter[0] == '\r')
        return refuse("--delimiter must be one character other than a line feed, not '" + delimiter + "'.");
      optionsM.delimiter = delimiter[0];
    }
    if (!controlSocket.empty()) optionsM.controlSocket = controlSocket;
    if (*metricsOption) {
      std::string error;
      optionsM.metrics = MetricsAddress::parse(metrics, error);
      if (!optionsM.metrics) return refuse(error + ".");
    }
    std::string refusal;
    if (*fieldsOption && !RecordFields::parse(fields, optionsM.fields, refusal)) return refuse(refusal);
  }
  return true;
}

}  // namespace Host
