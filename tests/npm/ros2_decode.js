// Decodes messages of ROS 2 with a decoder that knows nothing of Kinetrel.
//   node ros2_decode.js < lines of "pose HEX" or "tf HEX", the payload with its encapsulation
// Prints one line for each message: "pose" or "tf", then for each transform
//   SECONDS NANOSECONDS FRAME CHILD-FRAME X Y Z QX QY QZ QW        (CHILD-FRAME of a pose: -)
"use strict";

const readline = require("readline");
const { parse } = require("@foxglove/rosmsg");
const { MessageReader } = require("@foxglove/rosmsg2-serialization");

const common = `
================================================================================
MSG: std_msgs/Header
builtin_interfaces/Time stamp
string frame_id
================================================================================
MSG: builtin_interfaces/Time
int32 sec
uint32 nanosec
================================================================================
MSG: geometry_msgs/Quaternion
float64 x
float64 y
float64 z
float64 w
`;
const definitions = {
  pose: `std_msgs/Header header
geometry_msgs/Pose pose${common}================================================================================
MSG: geometry_msgs/Pose
geometry_msgs/Point position
geometry_msgs/Quaternion orientation
================================================================================
MSG: geometry_msgs/Point
float64 x
float64 y
float64 z
`,
  tf: `geometry_msgs/TransformStamped[] transforms${common}================================================================================
MSG: geometry_msgs/TransformStamped
std_msgs/Header header
string child_frame_id
geometry_msgs/Transform transform
================================================================================
MSG: geometry_msgs/Transform
geometry_msgs/Vector3 translation
geometry_msgs/Quaternion rotation
================================================================================
MSG: geometry_msgs/Vector3
float64 x
float64 y
float64 z
`,
};
const readers = {};
for (const [kind, definition] of Object.entries(definitions)) {
  readers[kind] = new MessageReader(parse(definition, { ros2: true }));
}

const words = (header, child, at, turn) =>
  [header.stamp.sec, header.stamp.nanosec ?? header.stamp.nsec, header.frame_id, child,
    at.x, at.y, at.z, turn.x, turn.y, turn.z, turn.w].join(" ");

readline.createInterface({ input: process.stdin }).on("line", (line) => {
  const [kind, hex] = line.split(" ");
  const message = readers[kind].readMessage(Buffer.from(hex, "hex"));
  const transforms = kind === "pose"
    ? [words(message.header, "-", message.pose.position, message.pose.orientation)]
    : message.transforms.map((each) => words(
      each.header, each.child_frame_id, each.transform.translation, each.transform.rotation));
  console.log([kind, ...transforms].join(" "));
});
