// The packet socket of a capture (packet(7)), which one interface after the other may feed. Needs
// no privilege once the socket is there, so it works after -u.
#pragma once

namespace kestrel {

// Takes the frames of the interface with this index, those that are for others too. Returns whether
// there is one.
bool packet_socket_bind(int descriptor, int index);

// Takes no more frames of the interface and leaves it alone. One that was removed has done all of
// that itself.
void packet_socket_leave(int descriptor, int index);

}  // namespace kestrel
