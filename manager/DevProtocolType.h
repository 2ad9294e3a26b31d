#pragma once

/*! The kinds of light, as their advertisements tell them. There is no type 4. */
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
