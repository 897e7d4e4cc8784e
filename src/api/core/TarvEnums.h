#pragma once

// Enumerations of the host records. The numbers are what the records carry.

namespace TarvTranscoderState {
enum Enum {
    Unknown = 0,
    Receiver = 1,    // follows a transcoder
    Transcoder = 2,  // its own master; may have followers
};
}

namespace TarvRolesType {
enum Enum {
    Unknown = 0,
    Path = 3,              // a row that points at another node
    Follower = 6,          // UI row of a follower
    GroupingMember = 101,  // row of the grouping-members node
    GroupingTranscoder = 102, // UI row of a joinable transcoder
};
}

namespace TarvGroupingRequestCommand {
enum Enum {
    Leave = -1,
    None = 0,
    Join = 1,
};
}

namespace TarvEventRowsType {
enum Enum {
    None = 0,
    Changed = 1,
};
}
