! The Fortran routine of frames.h. It stands outside a module, because Wine's debug help does not look
! into modules.
integer(c_int) function frames_in_fortran(callback, value) bind(c)
  use, intrinsic :: iso_c_binding
  implicit none
  abstract interface
    integer(c_int) function callback_type(value) bind(c)
      import c_int
      integer(c_int), value :: value
    end function callback_type
  end interface
  type(c_funptr), value :: callback
  integer(c_int), value :: value
  procedure(callback_type), pointer :: call_back
  call c_f_procpointer(callback, call_back)
  frames_in_fortran = call_back(value) + 1
end function frames_in_fortran
