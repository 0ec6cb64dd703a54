! The write to unit 7 that the library, which has no Fortran runtime, asks the program for.
! A line that cannot be written, as where unit 7 was opened for something else, is lost without a word.
subroutine kxm_write_unit7(text, length) bind(c)
    use, intrinsic :: iso_c_binding, only: c_char, c_int64_t
    implicit none
    integer(c_int64_t), value :: length
    character(kind=c_char), intent(in) :: text(length)
    integer :: ignored

    write (7, '(*(a))', iostat=ignored) text
    flush (7, iostat=ignored)
end subroutine kxm_write_unit7
