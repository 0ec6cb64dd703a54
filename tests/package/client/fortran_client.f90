program fortran_client
    use, intrinsic :: iso_c_binding
    use kxmbasmem
    implicit none
    integer(c_int), pointer :: value(:)
    type(c_ptr) :: block
    block = mem_malloc(40_c_size_t)
    call c_f_pointer(block, value, [10])
    value = 42
    print '(i0)', value(10)
    call mem_free(block)
end program fortran_client
