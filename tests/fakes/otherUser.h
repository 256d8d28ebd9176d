#pragma once

#include <unistd.h>

/// While it lives, root's process acts as another user; one of any other user stays what it is.
class OtherUser {
public:
   OtherUser() : _before(::geteuid()) { Become(kNobody); }
   ~OtherUser() { Become(_before); }
   OtherUser(const OtherUser&) = delete;
   OtherUser& operator=(const OtherUser&) = delete;

private:
   static constexpr uid_t kNobody = 65534;

   void Become(uid_t user) const
   {
      if (_before == 0 && ::seteuid(user) != 0) {
         ::_exit(1); // the test would check nothing
      }
   }

   const uid_t _before;
};
