// Calls a method that must succeed.
#pragma once

#include <gtest/gtest.h>

#include <type_traits>

#include "common/status.h"

namespace kandb::testing {

// For example `Answer(Caller(port), &Caller::Tso, {1}).timestamp`.
template <class Object, class Class, class Request, class Response>
Response Answer(Object&& object, Status (Class::*method)(const Request&, Response*),
                const std::type_identity_t<Request>& request) {
  Response response;
  EXPECT_EQ((object.*method)(request, &response).ToString(), "OK");
  return response;
}

}  // namespace kandb::testing
