! Finding bad data, and memory that was never set, in Fortran arrays. Arrays are contiguous: what is given as
! a section is looked at as a copy. Any thread may call, as far as nobody else writes the array meanwhile.
module kxm_checks
    use, intrinsic :: iso_c_binding, only: c_char, c_double, c_int, c_int32_t, c_int64_t, c_loc, &
                                           c_null_char, c_ptr
    implicit none
    private

    public :: kxm_report_nan, kxm_report_pattern, kxm_fill_pattern

    ! Reports on standard error each word of a memory that equals the pattern, by its number from 0. Words
    ! have the pattern's 4 or 8 bytes; bytes behind the last whole word are left out.
    interface kxm_report_pattern
        subroutine report_pattern_4(memory, pattern, bytes) bind(c, name="kxm_fortran_report_pattern_4")
            import :: c_int32_t, c_int64_t, c_ptr
            type(c_ptr), value :: memory
            integer(c_int32_t), value :: pattern
            integer(c_int64_t), value :: bytes
        end subroutine report_pattern_4

        subroutine report_pattern_8(memory, pattern, bytes) bind(c, name="kxm_fortran_report_pattern_8")
            import :: c_int64_t, c_ptr
            type(c_ptr), value :: memory
            integer(c_int64_t), value :: pattern, bytes
        end subroutine report_pattern_8
    end interface kxm_report_pattern

    ! Stores the pattern in each of those words if MC_RESULT was in the environment when the program was
    ! loaded, and does nothing otherwise: what is never set is found by it later.
    interface kxm_fill_pattern
        subroutine fill_pattern_4(memory, pattern, bytes) bind(c, name="kxm_fortran_fill_pattern_4")
            import :: c_int32_t, c_int64_t, c_ptr
            type(c_ptr), value :: memory
            integer(c_int32_t), value :: pattern
            integer(c_int64_t), value :: bytes
        end subroutine fill_pattern_4

        subroutine fill_pattern_8(memory, pattern, bytes) bind(c, name="kxm_fortran_fill_pattern_8")
            import :: c_int64_t, c_ptr
            type(c_ptr), value :: memory
            integer(c_int64_t), value :: pattern, bytes
        end subroutine fill_pattern_8
    end interface kxm_fill_pattern

contains

    ! Reports on standard output each of the values that is a NaN: with the name, its number from 0, and the
    ! place in the source that the caller tells. -finit-real=snan poisons with a value that is not found
    ! (its NaN has none of the bits that are looked at); -finit-real=nan is.
    subroutine kxm_report_nan(name, values, file, line)
        character(len=*), intent(in) :: name
        real(c_double), intent(in), target, contiguous :: values(:)
        character(len=*), intent(in) :: file
        integer, intent(in) :: line

        interface
            subroutine report_nan(name, values, count, file, line) bind(c, name="kxm_fortran_report_nan")
                import :: c_char, c_int, c_int64_t, c_ptr
                character(kind=c_char), intent(in) :: name(*), file(*)
                type(c_ptr), value :: values
                integer(c_int64_t), value :: count
                integer(c_int), value :: line
            end subroutine report_nan
        end interface

        if (size(values, kind=c_int64_t) == 0) return
        call report_nan(trim(name)//c_null_char, c_loc(values), size(values, kind=c_int64_t), &
                        trim(file)//c_null_char, int(line, c_int))
    end subroutine kxm_report_nan

end module kxm_checks
