#pragma once

/*! The protocol types of lights, as found in their advertisements. Type 4 is not supported. */
enum eDevProtocolType : int {
    DevProtocol1 = 1,
    DevProtocol2 = 2,
    DevProtocol3 = 3,
    DevProtocol5 = 5,
    DevProtocol6 = 6,
    DevProtocol7 = 7,
    DevProtocol162 = 162,
    DevProtocol163 = 163,
    DevProtocol1001 = 1001,
};
