#pragma once

#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace orin {

// What a request target routes by: the path without its query.
inline std::string_view routingPath(std::string_view target) {
  return target.substr(0, target.find('?'));
}

// Method and path, compared exactly, to a handler. A path known under another method finds
// nothing, like an unknown one: both services answer those with their own 404.
template <class Handler>
class RouteTable {
 public:
  RouteTable(
      std::initializer_list<std::pair<std::pair<std::string, std::string>, Handler>> routes) {
    for (const auto& [key, handler] : routes)
      routes_.push_back({key.first, key.second, handler});
  }

  // Null when no route matches the method and the target's routing path.
  const Handler* find(std::string_view method, std::string_view target) const {
    const std::string_view path = routingPath(target);
    for (const auto& route : routes_) {
      if (route.method == method && route.path == path) return &route.handler;
    }
    return nullptr;
  }

 private:
  struct Route {
    std::string method;
    std::string path;
    Handler handler;
  };
  std::vector<Route> routes_;
};

}  // namespace orin
