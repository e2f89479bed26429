#pragma once

#include <string>
#include <vector>

/// "-notarize PATH [-certificate NAME]": notarises an installer bundle or a
/// disk image with the stored account and staples it, printing the texts
/// the window would show. With a certificate the file is signed first.
namespace KTNotarizeCommand {

/// 0 only when the ticket was stapled; 1 otherwise.
int run(const std::vector<std::string>& args);

/// The verb's usage lines.
std::string usage();

}  // namespace KTNotarizeCommand
