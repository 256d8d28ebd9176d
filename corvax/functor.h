#pragma once

#include "corvax/object.h"

namespace Corvax {

/// A function to be called later, with arguments of the given types.
template <class... Args>
class Functor : public virtual Object {
public:
   virtual void operator()(Args... args) = 0;
};

/// A member function bound to its object; holds a reference on the object.
template <class T, class Member, class... Args>
class MemberFunctor : public Functor<Args...>, public ObjectImpl {
public:
   MemberFunctor(T* object, Member member) : _object(object), _member(member) {}

   void operator()(Args... args) override { ((*_object).*_member)(args...); }

private:
   const Ref<T> _object;
   const Member _member;
};

template <class T, class Owner, class... Args>
Ref<Functor<Args...>> MakeFunctor(T* object, void (Owner::*member)(Args...))
{
   return MakeRef<MemberFunctor<T, void (Owner::*)(Args...), Args...>>(object, member);
}

} // namespace Corvax
