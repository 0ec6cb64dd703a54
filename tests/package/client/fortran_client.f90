program fortran_client
    use, intrinsic :: iso_c_binding
    use kxmbasmem
    use kxm_arrays
    use kxm_checks
    use kxm_tracking
    implicit none
    integer(c_int), pointer :: value(:), table(:, :)
    type(c_ptr) :: block
    integer :: stat

    call kxm_begin_tracking('fortran_client')
    call kxm_enter_phase('all')
    block = mem_malloc(40_c_size_t)
    call c_f_pointer(block, value, [10])
    value = 40
    call kxm_allocate(table, [3, 4], stat)
    table = 2 + stat
    call kxm_report_nan('none', [0.0_c_double], 'fortran_client.f90', 1)
    print '(i0)', value(10) + table(3, 4)
    call kxm_release(table)
    call mem_free(block)
    call kxm_exit_phase()
    call kxm_end_tracking()
end program fortran_client
