// forgeries.h - frames that pretend to come from cards.
//
// Whoever is on the cards' Ethernet can do much: announce cards, divert the access to a card,
// answer in its place. Nothing here keeps a check from telling right from wrong:
//
// - A stranger is a card that does not exist. Strangers are few, so that the tables find their
//   size; they fall silent at once, and expire.
// - A false record has the ID, kind, speed, version and VLAN ID of a card, so that who accesses it
//   speaks to it in the right way, but any other fields, and comes by any port and path. The card's
//   own next announcement puts the fields right; a path that is not its own expires. What is sent
//   by it meanwhile reaches nobody.
// - A false kind has the ID of a card that lasts, but is a server card where that one is an I/O
//   card, or the other way round. It expires; then the card has to be reachable again.
// - A broken announcement comes from nobody, whom the host must never come to know.
// - A long announcement says what the card says, and goes on behind it.
// - A bad tag is one that the host does not use.
// - A misled answer has the card's address, port and tag, a wrong value, and is for another host;
// it
//   leaves when a read has arrived and most often before the card's own answer. One that is for
//   this host could not be told from the card's: there is none.
#pragma once

#include "troubles/scene.h"

namespace soak {

void forge(scene& at, std::mt19937& random);

// For each request that arrives; answers every eighth read.
void mislead(scene& at, size_t port, const cardsim::request& received);

}  // namespace soak
