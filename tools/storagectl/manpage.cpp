// The manual page, made from the same texts as --help: built with the tool and installed.
#include <CLI/CLI.hpp>
#include <sstream>

#include "core/common/module.h"
#include "storagectl.h"

namespace Storagectl {
namespace {

// Text as roff reads it: backslashes and hyphens escaped, no line starting a request.
std::string Roff(const std::string& text) {
  std::string out;
  for (char c : text) out += c == '\\' ? "\\e" : c == '-' ? "\\-" : std::string(1, c);
  return !out.empty() && (out[0] == '.' || out[0] == '\'') ? "\\&" + out : out;
}

void Options(std::ostream& out, const CLI::App& app) {
  for (const CLI::Option* o : app.get_options())
    if (o->get_name() != "--help,-h" && o->get_name() != "--help")
      out << ".TP\n\\fB" << Roff(o->get_name()) << "\\fR\n" << Roff(o->get_description()) << "\n";
}

}  // namespace

std::string ManPage(const CLI::App& app) {
  std::ostringstream out;
  out << ".TH STORAGECTL 8 \"\" \"libappliance_storage " << major_version << "." << minor_version << "." << build_number
      << "\" \"System Administration\"\n"
      << ".SH NAME\nstoragectl \\- administer the appliance's local storages\n"
      << ".SH SYNOPSIS\n.B storagectl\n[\\fB\\-\\-json\\fR] [\\fB\\-\\-trace\\fR] \\fICOMMAND\\fR [\\fIARGUMENTS\\fR]\n"
      << ".SH DESCRIPTION\n"
      << Roff(app.get_description()) << "\n.SH OPTIONS\n";
  Options(out, app);
  out << ".SH COMMANDS\n";
  for (const CLI::App* sub : app.get_subcommands([](const CLI::App* s) { return !s->get_group().empty(); })) {
    std::string usage = CLI::Formatter().make_usage(sub, sub->get_name());
    usage = usage.substr(usage.find(':') + 2);
    out << ".SS " << Roff(usage.substr(0, usage.find('\n'))) << "\n"
        << Roff(sub->get_description()) << "\n.PP\n"
        << Roff(sub->get_footer()) << "\n";
    if (sub->get_options().size() > 1) out << ".RS\n", Options(out, *sub), out << ".RE\n";
  }
  out << ".SH EXIT STATUS\n" << Roff(app.get_footer()) << "\n";
  return out.str();
}

}  // namespace Storagectl
