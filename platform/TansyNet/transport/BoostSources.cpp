// The compiled half of Asio and Beast, built once for the whole library. The switches are in the library's build file.
#include <boost/asio/impl/src.hpp>

// Beast's parser asserts that at least five bytes of a body's end have come, which is not so when an empty body in
// chunks has sent "0\r\n" and one byte more. It works all the same, but whoever builds without NDEBUG would let any
// client end the process. This header may be included again and then follows the switch.
#define BOOST_DISABLE_ASSERTS
#include <boost/assert.hpp>

#include <boost/beast/src.hpp>
