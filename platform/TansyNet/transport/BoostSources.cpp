// The compiled half of Asio and Beast, once for the whole library; see the library's build file for the switches.
#include <boost/asio/impl/src.hpp>
#include <boost/beast/src.hpp>
