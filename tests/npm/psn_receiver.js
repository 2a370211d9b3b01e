// Receives PosiStageNet by multicast and decodes it with a decoder that is not ours. Prints what it
// knows of the trackers after each packet, one line of JSON:  node psn_receiver.js
const dgram = require('dgram');
const { Decoder } = require('@jwetzell/posistagenet');

const decoder = new Decoder();
const socket = dgram.createSocket({ type: 'udp4', reuseAddr: true });
socket.on('message', (packet) => {
  decoder.decode(packet);
  const show = (key, value) => (typeof value === 'bigint' ? Number(value) : value);
  console.log(JSON.stringify({ system: decoder.systemName, trackers: decoder.trackers }, show));
});
socket.bind(56565, () => {
  socket.addMembership('236.10.10.10', '127.0.0.1');
  console.log('"ready"');
});
