// A write right for a user who is not root, obtained the way systemctl does:
// polkit's text agent for this process on the terminal, then pkcheck with
// user interaction, so the password prompt appears here. polkit then keeps the
// answer for a while, and the daemon's own check (never interactive) grants it.
#pragma once

#include <string>

namespace nightjar::ctl {

// Asks for `right` when standard input is a terminal; does nothing otherwise.
// Answers false when polkit refused; the daemon's answer decides in any case.
bool obtainRight(const std::string& right);

}  // namespace nightjar::ctl
