! How a Fortran test says what failed, and ends.
module test_checks
    use, intrinsic :: iso_fortran_env, only: error_unit
    implicit none

contains

    subroutine check(good, what)
        logical, intent(in) :: good
        character(*), intent(in) :: what
        if (.not. good) then
            write (error_unit, '(2a)') 'failed: ', what
            error stop 1
        end if
    end subroutine check

end module test_checks
