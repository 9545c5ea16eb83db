// forgeries.h - frames that pretend to come from cards.
//
// Anyone on the cards' Ethernet can announce cards, divert the access to a card, or answer in its
// place. The forgeries are such that the checks can still tell right from wrong:
//
// - A stranger is a card that does not exist. Strangers are few, so that the tables reach a final
//   size; they fall silent at once, and expire.
// - A false record has the ID, kind, speed, version and VLAN ID of a card, so that the card is
//   still accessed in the right way, but any other fields, and comes by any port and path. The
//   card's own next announcement corrects the fields; a path that is not its own expires, and what
//   is sent by it meanwhile reaches nobody.
// - A false kind has the ID of a card that stays, but is a server card if that is an I/O card, and
//   the other way round. It expires; then the card has to be reachable again.
// - A broken announcement has an ID of its own, which the host must never add.
// - A long announcement is the card's own with more bytes after it.
// - A bad tag is one that the host does not use.
// - A misled answer has the card's address, port and tag, a wrong value, and is for another host;
//   it leaves when a read has arrived, most often before the card's own answer. One for this host
//   could not be told from the card's, so there is none.
#pragma once

#include "troubles/scene.h"

namespace soak {

void forge(scene& at, std::mt19937& random);

// Called for each request that arrives; answers every eighth read.
void mislead(scene& at, size_t port, const cardsim::request& received);

}  // namespace soak
