// The compiled half of Asio and Beast, built once for the whole library. The switches are in the library's build file.
#include <boost/asio/impl/src.hpp>
#include <boost/beast/src.hpp>
