// Commands that are carried out here, from the directory of the events.
#pragma once

#include "Tools/Ctl/CtlOptions.h"

namespace Tavi::Ctl {

/// Prints the list ("events") or each event that is meant ("show"). These return the exit status; what is wrong goes to
/// standard error in one line.
int RunEvents(const CtlOptions& options);
int RunShow(const CtlOptions& options);
/// Writes each event that is meant into the directory that is given, in the formats that are asked for.
int RunExport(const CtlOptions& options);

/// The ids of the events that are meant, and, unless the user is sure, a yes of his to each: for "protect" and
/// "remove", which a recorder carries out. Empty, with `exitStatus`, when there is nothing to do.
std::vector<std::string> ChooseEvents(const CtlOptions& options, int& exitStatus);

/// "tavi-ctl: sentence" on standard error; returns `exitStatus`.
int Complain(int exitStatus, const std::string& sentence);
/// False, with the reason on standard error, when standard output does not take it.
bool Print(const std::string& text);

}  // namespace Tavi::Ctl
